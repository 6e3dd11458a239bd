-- The plans that a measured value is of, by looks into the index alone.
WITH RECURSIVE plans(plan) AS (
    SELECT min(plan) FROM measurements WHERE name = $1
    UNION ALL SELECT (SELECT min(m.plan) FROM measurements m WHERE m.name = $1 AND m.plan > p.plan) FROM plans p
        WHERE p.plan IS NOT NULL)
SELECT plan FROM plans WHERE plan IS NOT NULL
