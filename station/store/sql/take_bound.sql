-- The addresses that were bound just now: their ranges do not know it yet. `free`: the first one that could have been.
bound AS (SELECT r.id, r.first, b.number,
        coalesce(lag(b.number) OVER (PARTITION BY r.id ORDER BY b.number) + 1, r.next) AS free
    FROM pool_rows b JOIN ranges r ON r.pool = b.pool AND r.first <= b.number AND b.number BETWEEN r.next AND r.last
    WHERE b.pool = {pool} AND r.next <= r.last AND NOT r.retired AND b.unit IN (
        SELECT u.id FROM @each($2) AS t JOIN units u ON u.serial = t.value ->> 'unit'))
