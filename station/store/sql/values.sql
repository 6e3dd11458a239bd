-- Measured values of a filter with their Cpk. Where the limits were changed meanwhile, the tightest hold. A constant has
-- no Cpk: what rounding leaves of its deviation means nothing.
WITH spread AS (
    SELECT {group}, count(*) AS measured, count(*) FILTER (WHERE m.verdict = 'failed') AS failed,
           min(m.value) AS lowest, avg(m.value) AS mean, max(m.value) AS highest,
           CASE WHEN min(m.value) = max(m.value) THEN 0 ELSE stddev_samp(m.value) END AS deviation,
           max(m.minimum) AS minimum, min(m.maximum) AS maximum
    FROM measurements m {join} WHERE {readings} {parts})
SELECT spread.*, CASE WHEN minimum IS NULL OR maximum - mean <= mean - minimum THEN maximum - mean ELSE mean - minimum END
                 / nullif(3 * deviation, 0) AS cpk
FROM spread ORDER BY cpk, {ordinals}
