-- The rows of runs and their units. $1 is an array of runs in JSON, each once: its record, where `verdict`, `seconds`,
-- `failed_step` and `failure` are those of the table, and `counts` says that it has an `attempt`.
INSERT INTO units (serial, product, first_seen, last_seen)
SELECT r.unit, min(nullif(r.variables ->> 'product', '')), min(r.start), max(r.start) FROM {run_of} WHERE r.unit <> ''
GROUP BY r.unit ORDER BY r.unit ON CONFLICT (serial) DO UPDATE SET
    product = coalesce(units.product, excluded.product),
    first_seen = CASE WHEN excluded.first_seen < units.first_seen THEN excluded.first_seen ELSE units.first_seen END,
    last_seen = CASE WHEN excluded.last_seen > units.last_seen THEN excluded.last_seen ELSE units.last_seen END
WHERE excluded.first_seen < units.first_seen OR excluded.last_seen > units.last_seen
    OR units.product IS NULL AND excluded.product IS NOT NULL;

-- A run that counts keeps its number when it is written again. That of a new one is right unless runs come late, when
-- save_attempts.sql corrects it.
INSERT INTO runs (run, unit, plan, station, place, place_name, peer, started, ended, seconds, verdict, attempt,
                  failed_step, failure, cause, operator, reference, plan_version, variables)
SELECT r.id, (SELECT id FROM units WHERE serial = r.unit), r.plan,
       (SELECT id FROM stations WHERE key = r.station ->> 'key'), CAST(r.place ->> 'number' AS BIGINT),
       r.place ->> 'name', nullif(r.peer, ''), r.start, r."end", r.seconds, r.verdict,
       CASE WHEN r.counts THEN 1 + (SELECT coalesce(max(o.attempt), 0) FROM runs o JOIN units u ON u.id = o.unit
           WHERE u.serial = r.unit AND o.plan = r.plan) END,
       r.failed_step, r.failure, r.cause, r.operator, coalesce(r.reference, FALSE),
       (SELECT id FROM plan_versions WHERE digest = r.plan_sha256), r.variables
FROM {run_of} WHERE TRUE ON CONFLICT (run) DO UPDATE SET
    unit = excluded.unit, ended = excluded.ended, seconds = excluded.seconds, verdict = excluded.verdict,
    attempt = CASE WHEN excluded.attempt IS NOT NULL THEN coalesce(runs.attempt, excluded.attempt) END,
    failed_step = excluded.failed_step, failure = excluded.failure, cause = excluded.cause,
    operator = excluded.operator, reference = excluded.reference, plan_version = excluded.plan_version,
    variables = excluded.variables
WHERE runs.ended IS NULL OR excluded.ended IS NOT NULL;
