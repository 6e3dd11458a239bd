-- A run that counts keeps its number when it is written again. A new one gets it from save_attempts.sql.
INSERT INTO runs (run, unit, plan, station, place, place_name, peer, started, ended, seconds, verdict, attempt,
                  failed_step, failure, cause, operator, reference, plan_version, variables)
VALUES ($1, (SELECT id FROM units WHERE serial = $2), $3, (SELECT id FROM stations WHERE key = $4), $5, $6, $7, $8, $9,
        $10, $11, $12, $13, $14, $15, $16, $17, (SELECT id FROM plan_versions WHERE digest = $18), $19)
ON CONFLICT (run) DO UPDATE SET
    unit = excluded.unit, ended = excluded.ended, seconds = excluded.seconds, verdict = excluded.verdict,
    attempt = CASE WHEN excluded.attempt IS NOT NULL THEN coalesce(runs.attempt, excluded.attempt) END,
    failed_step = excluded.failed_step, failure = excluded.failure, cause = excluded.cause,
    operator = excluded.operator, reference = excluded.reference, plan_version = excluded.plan_version,
    variables = excluded.variables
WHERE runs.ended IS NULL OR excluded.ended IS NOT NULL
