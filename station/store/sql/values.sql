-- Measured values of a filter with their Cpk. Where the limits were changed meanwhile, the tightest hold.
WITH spread AS (
    SELECT m.plan, m.name, m.unit, count(*) AS measured, count(*) FILTER (WHERE m.verdict = 'failed') AS failed,
           min(m.value) AS lowest, avg(m.value) AS mean, max(m.value) AS highest, stddev_samp(m.value) AS deviation,
           max(m.minimum) AS minimum, min(m.maximum) AS maximum
    FROM measurements m WHERE {readings} GROUP BY m.plan, m.name, m.unit)
SELECT spread.*, CASE WHEN minimum IS NULL OR maximum - mean <= mean - minimum THEN maximum - mean ELSE mean - minimum END
                 / nullif(3 * deviation, 0) AS cpk
FROM spread ORDER BY cpk, plan, name
