-- All readings of a value in the period as one group; no row without any.
SELECT min(m.started) AS started, max(m.started) AS until, count(*) AS measured,
       count(*) FILTER (WHERE m.verdict = 'failed') AS failed, min(m.value) AS lowest, avg(m.value) AS mean,
       max(m.value) AS highest, max(m.minimum) AS minimum, min(m.maximum) AS maximum, min(m.unit) AS unit
FROM measurements m WHERE {readings} HAVING count(*) > 0
