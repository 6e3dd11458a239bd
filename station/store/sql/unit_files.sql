-- The files that the last run of each plan used for a unit.
SELECT r.plan, f.step, f.name AS file, f.size, f.sha256
FROM units u JOIN runs r ON r.unit = u.id JOIN plan_files f ON f.plan_version = r.plan_version
WHERE u.serial = $1 AND NOT EXISTS (SELECT 1 FROM runs later WHERE later.unit = r.unit AND later.plan = r.plan
    AND (later.started, later.id) > (r.started, r.id))
ORDER BY r.plan, f.step, f.name
