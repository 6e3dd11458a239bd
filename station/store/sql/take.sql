-- What a unit takes of a pool: a block of {count} addresses, or {count} values. The first parameter is the pool's name,
-- the second the run's, the third the time.

-- How many addresses the unit has already, when they are too few.
SELECT count(*) FROM pool_rows b WHERE b.unit = {unit} AND b.pool = {pool} AND b.number IS NOT NULL AND {take_has} IS NULL;

-- The addresses before the carry are too few for this block. They become a range of their own, for smaller boards.
INSERT INTO ranges (pool, first, last, next, retired)
    WITH {take_chosen} SELECT {pool}, first, start - 1, next, FALSE FROM chosen WHERE start > next;

INSERT INTO pool_rows (pool, value, number, unit, run, bound, retired)
    WITH RECURSIVE {take_chosen},
    block(number, stop) AS (SELECT start, start + {count} FROM chosen
        UNION ALL SELECT number + 1, stop FROM block WHERE number + 1 < stop)
    SELECT {pool}, {take_address}, number, {unit}, $2, CAST($3 AS @time), FALSE FROM block;

-- Numbers from `next` on were bound just now.
UPDATE ranges SET
    first = (SELECT CASE WHEN min(b.number) > ranges.next THEN min(b.number) ELSE ranges.first END FROM pool_rows b
        WHERE b.number BETWEEN ranges.next AND ranges.last),
    next = (SELECT max(b.number) + 1 FROM pool_rows b WHERE b.number BETWEEN ranges.next AND ranges.last)
    WHERE id IN (SELECT r.id FROM pool_rows b JOIN ranges r ON r.pool = b.pool AND r.first <= b.number
        AND b.number BETWEEN r.next AND r.last AND r.next <= r.last AND NOT r.retired
        WHERE b.unit = {unit} AND b.pool = {pool});

UPDATE pool_rows SET unit = {unit}, run = $2, bound = $3 WHERE id IN (
    SELECT b.id FROM pool_rows b WHERE b.pool = {pool} AND b.unit IS NULL AND NOT b.retired
        AND {unit} IS NOT NULL AND {count} = 1 AND (SELECT kind FROM pools WHERE name = $1) = 'values'
    ORDER BY b.id LIMIT (SELECT CASE WHEN count(*) < {count} THEN {count} - count(*) ELSE 0 END FROM pool_rows h
        WHERE h.unit = {unit} AND h.pool = {pool}));

UPDATE pools SET block = {count} WHERE name = $1 AND block <> {count};

-- What the unit has now.
SELECT b.value FROM pool_rows b JOIN pools p ON p.id = b.pool
    WHERE p.name = $1 AND b.unit = {unit}
        AND (p.kind = 'values' OR b.number BETWEEN {take_has} AND {take_has} + {count} - 1)
    ORDER BY CASE p.kind WHEN 'addresses' THEN b.number END, b.id LIMIT {count};

-- For how many more units the pool is enough. Values are counted up to the pool's limit.
SELECT p.kind, p.low, CASE p.kind
    WHEN 'addresses' THEN (SELECT coalesce(sum({blocks}), 0) FROM ranges r
        WHERE r.pool = p.id AND r.next <= r.last AND NOT r.retired)
    ELSE (SELECT count(*) FROM (SELECT 1 FROM pool_rows WHERE pool = {pool} AND unit IS NULL AND NOT retired
        LIMIT (SELECT (low + 1) * {count} FROM pools WHERE name = $1)) AS free) / {count} END
    FROM pools p WHERE p.name = $1;
