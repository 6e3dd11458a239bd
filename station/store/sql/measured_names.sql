-- The names of all measured values with the plans that they are of, by looks into the index alone.
WITH RECURSIVE
names(name) AS (
    SELECT min(name) FROM measurements
    UNION ALL SELECT (SELECT min(m.name) FROM measurements m WHERE m.name > n.name) FROM names n WHERE n.name IS NOT NULL),
plans(name, plan) AS (
    SELECT n.name, (SELECT min(m.plan) FROM measurements m WHERE m.name = n.name) FROM names n WHERE n.name IS NOT NULL
    UNION ALL SELECT p.name, (SELECT min(m.plan) FROM measurements m WHERE m.name = p.name AND m.plan > p.plan)
        FROM plans p WHERE p.plan IS NOT NULL)
SELECT name, plan FROM plans WHERE plan IS NOT NULL ORDER BY name, plan
