-- Gives a block of {count} addresses of the pool $1 to each of the runs $2: an array in JSON with `run`, `unit` and
-- `place`, which counts from 0. $3 is the time.

-- The lowest blocks of the first ranges that have room for one. `head`: how many a range has before the first carry of
-- the sixth byte, which no block crosses. `before`: how many the ranges before it have.
INSERT INTO pool_rows (pool, value, number, unit, run, bound, retired)
    WITH RECURSIVE free AS (SELECT r.first, r.next, (256 - r.next % 256) / {count} AS head, {blocks} AS blocks
        FROM ranges r WHERE r.pool = {pool} AND r.next <= r.last AND NOT r.retired AND {blocks} > 0
        ORDER BY r.first LIMIT (SELECT count(*) FROM @each($2) AS t)),
    sums AS (SELECT next, head, blocks, CAST(sum(blocks) OVER (ORDER BY first) - blocks AS BIGINT) AS before FROM free),
    taker AS (SELECT u.id AS unit, t.value ->> 'run' AS run, CAST(t.value ->> 'place' AS BIGINT) AS place
        FROM @each($2) AS t JOIN units u ON u.serial = t.value ->> 'unit'),
    chosen AS (SELECT unit, run, next, head, place - before AS block FROM taker JOIN sums
        ON place >= before AND place < before + blocks),
    offset_of(n) AS (SELECT 0 UNION ALL SELECT n + 1 FROM offset_of WHERE n + 1 < {count}),
    given AS (SELECT unit, run, n + CASE WHEN block < head THEN next + block * {count} ELSE
        (next / 256 + 1 + (block - head) / (256 / {count})) * 256 + (block - head) % (256 / {count}) * {count} END
        AS number FROM chosen CROSS JOIN offset_of)
    SELECT {pool}, {take_address}, number, unit, run, CAST($3 AS @time), FALSE FROM given;

-- The addresses before a carry were too few for a block. They become a range of their own, for smaller boards.
INSERT INTO ranges (pool, first, last, next, retired)
    WITH {take_bound} SELECT {pool}, coalesce(lag(number) OVER (PARTITION BY id ORDER BY number), first), number - 1,
        free, FALSE FROM bound WHERE number > free;

UPDATE ranges SET first = coalesce(changed.first, ranges.first), next = changed.next
    FROM (WITH {take_bound} SELECT id, max(CASE WHEN number > free THEN number END) AS first, max(number) + 1 AS next
        FROM bound GROUP BY id) AS changed WHERE changed.id = ranges.id;
