-- The readings of a value in so many groups of the same size, in the order of time.
WITH found AS (
    SELECT m.started, m.value, m.minimum, m.maximum, m.unit, m.verdict, ntile({count}) OVER (ORDER BY m.started) AS part
    FROM measurements m WHERE {readings})
SELECT min(started) AS started, max(started) AS until, count(*) AS measured,
       count(*) FILTER (WHERE verdict = 'failed') AS failed, min(value) AS lowest, avg(value) AS mean,
       max(value) AS highest, max(minimum) AS minimum, min(maximum) AS maximum, min(unit) AS unit
FROM found GROUP BY part ORDER BY part
