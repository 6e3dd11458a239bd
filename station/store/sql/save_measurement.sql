INSERT INTO measurements (run, step, name, value, minimum, maximum, unit, verdict, plan, started)
VALUES ((SELECT id FROM runs WHERE run = $1), $2, $3, $4, $5, $6, $7, $8, $9, $10) ON CONFLICT (run, step, name) DO NOTHING
