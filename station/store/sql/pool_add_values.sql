-- Adds values to the pool $1, in their order: an array in JSON of [value, number]. Returns those that were not there.
INSERT INTO pool_rows (pool, value, number, retired)
SELECT CAST($1 AS BIGINT), value ->> 0, CAST(value ->> 1 AS BIGINT), FALSE
FROM @each($2) WHERE TRUE ON CONFLICT DO NOTHING RETURNING value
