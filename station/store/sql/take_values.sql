-- Gives a value of the pool $1 to each of the runs $2, as in take_addresses.sql.
UPDATE pool_rows SET unit = chosen.unit, run = chosen.run, bound = CAST($3 AS @time)
    FROM (SELECT f.id, u.id AS unit, t.value ->> 'run' AS run FROM @each($2) AS t
        JOIN units u ON u.serial = t.value ->> 'unit'
        JOIN (SELECT id, row_number() OVER (ORDER BY id) - 1 AS place FROM pool_rows
            WHERE pool = {pool} AND unit IS NULL AND NOT retired
            ORDER BY id LIMIT (SELECT count(*) FROM @each($2) AS t)) AS f
        ON f.place = CAST(t.value ->> 'place' AS BIGINT)) AS chosen
    WHERE chosen.id = pool_rows.id;
