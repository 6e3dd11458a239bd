-- What the last run of each plan measured of a unit.
SELECT r.plan, m.name, m.value, m.unit, m.minimum, m.maximum, m.verdict, r.run
FROM units u JOIN runs r ON r.unit = u.id JOIN measurements m ON m.run = r.id
WHERE u.serial = $1 AND NOT EXISTS (SELECT 1 FROM runs later WHERE later.unit = r.unit AND later.plan = r.plan
    AND (later.started, later.id) > (r.started, r.id))
ORDER BY r.plan, m.step, m.name
