-- Adds ranges to the pool $1: an array in JSON of [first, last].
INSERT INTO ranges (pool, first, last, next, retired)
SELECT CAST($1 AS BIGINT), CAST(value ->> 0 AS BIGINT), CAST(value ->> 1 AS BIGINT), CAST(value ->> 0 AS BIGINT), FALSE
FROM @each($2)
