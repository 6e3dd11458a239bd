-- When the first run and the last one started: a look into the index for each.
SELECT (SELECT min(started) FROM runs) AS first, (SELECT max(started) FROM runs) AS last
