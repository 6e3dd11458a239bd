-- The next runs that have ended, in the order of their start, after the one with this start and key.
SELECT run, started, id FROM runs WHERE (started, id) > ($1, CAST($2 AS BIGINT)) AND started < $3 AND verdict <> 'running'
ORDER BY started, id LIMIT {count}
