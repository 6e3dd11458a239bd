-- How many readings of a value lie in each of {count} ranges of the same width. The highest reading is in the last one.
WITH found AS (SELECT m.value, m.verdict FROM measurements m WHERE {readings} AND m.value IS NOT NULL),
span AS (SELECT min(value) AS low, max(value) AS high, (max(value) - min(value)) / {count} AS width FROM found),
placed AS (
    SELECT low, width, verdict,
           CASE WHEN value = high THEN {count} - 1 ELSE floor((value - low) / nullif(width, 0)) END AS part
    FROM found, span)
SELECT low + part * width AS lowest, low + (part + 1) * width AS highest, count(*) AS measured,
       count(*) FILTER (WHERE verdict = 'failed') AS failed
FROM placed GROUP BY low, width, part ORDER BY part
