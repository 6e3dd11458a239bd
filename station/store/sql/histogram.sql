-- How many readings of a value lie in each of {count} ranges of the same width, by place. The highest reading is in the
-- last range. Whole numbers are what SQLite sorts fastest.
WITH span AS (
    SELECT min(m.value) AS low, max(m.value) AS high, (max(m.value) - min(m.value)) / {count} AS width
    FROM measurements m WHERE {readings}),
placed AS (
    SELECT m.place_name AS place, m.verdict = 'failed' AS failed, CAST(CASE WHEN m.value = high THEN {count} - 1
               ELSE floor((m.value - low) / nullif(width, 0)) END AS BIGINT) AS part
    FROM span, measurements m WHERE {readings} AND m.value IS NOT NULL),
parts AS (
    SELECT part, place, count(*) AS measured, count(*) FILTER (WHERE failed) AS failed FROM placed GROUP BY part, place)
SELECT low + part * width AS lowest, low + (part + 1) * width AS highest, place, measured, failed
FROM parts, span ORDER BY part, place
