-- The parts of the record of a run. The columns have the names of its members, "place/name" that of the name in `place`.
SELECT r.run AS id, r.plan, v.digest AS plan_sha256, r.place AS "place/number", r.place_name AS "place/name",
       s.name AS "station/name", s.key AS "station/key", coalesce(r.peer, '') AS peer, coalesce(u.serial, '') AS unit,
       r.started AS start, r.ended AS "end", r.verdict, r.cause, r.operator, r.reference, r.variables,
       CASE WHEN NOT EXISTS (SELECT 1 FROM steps t WHERE t.run = r.id AND t.verdict = 'failed' AND t.failure = r.failure)
            THEN r.failure END AS failure
FROM runs r JOIN stations s ON s.id = r.station LEFT JOIN units u ON u.id = r.unit
LEFT JOIN plan_versions v ON v.id = r.plan_version WHERE r.run = $1;

SELECT f.step, f.name, f.size, f.sha256 FROM runs r JOIN plan_files f ON f.plan_version = r.plan_version
WHERE r.run = $1 ORDER BY f.step, f.name;

-- The run keeps what the plan calls its first failed step.
SELECT t.step, t.title, t.verdict, coalesce(t.reply, '') AS reply, t.cut, t.failure, t.hint, t.started_after AS "offset",
       t.seconds, t.attempts, t.cause, CASE WHEN t.step = (SELECT min(f.step) FROM steps f WHERE f.run = r.id
           AND f.verdict = 'failed') THEN r.failed_step END AS planned
FROM runs r JOIN steps t ON t.run = r.id WHERE r.run = $1 ORDER BY t.step;

SELECT m.step, m.name, m.value, m.minimum AS min, m.maximum AS max, m.unit, m.verdict
FROM runs r JOIN measurements m ON m.run = r.id WHERE r.run = $1 ORDER BY m.step, m.name;
