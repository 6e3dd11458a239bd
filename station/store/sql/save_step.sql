INSERT INTO steps (run, step, title, verdict, reply, cut, failure, hint, started_after, seconds, attempts, cause)
VALUES ((SELECT id FROM runs WHERE run = $1), $2, $3, $4, $5, $6, $7, $8, $9, $10, $11, $12)
ON CONFLICT (run, step) DO NOTHING
