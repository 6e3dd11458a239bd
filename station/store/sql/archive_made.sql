INSERT INTO archives (file, runs, since, until, made)
SELECT $1, $2, min(started), max(started), $3 FROM runs WHERE started < $4 AND verdict <> 'running'
