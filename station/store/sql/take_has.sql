-- The first of the unit's addresses that begins a whole block.
(SELECT min(a.number) FROM pool_rows a WHERE a.unit = {unit} AND a.pool = {pool}
    AND a.number % 256 + {count} <= 256 AND {count} = (SELECT count(*) FROM pool_rows c WHERE c.unit = a.unit
        AND c.pool = a.pool AND c.number BETWEEN a.number AND a.number + {count} - 1))
