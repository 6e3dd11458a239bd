-- The archives that may have a run that started from $1 on, and before $2.
SELECT file FROM archives WHERE since < $2 AND until >= $1 ORDER BY id
