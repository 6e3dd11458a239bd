-- For a unit without a whole block: the lowest one of the first range that has room for it, before a carry of the sixth
-- byte or after it.
free AS (SELECT r.first, r.next, r.last, CASE WHEN r.next % 256 + {count} > 256 THEN (r.next / 256 + 1) * 256 ELSE r.next
    END AS start FROM ranges r WHERE r.pool = {pool} AND r.next <= r.last AND NOT r.retired),
chosen AS (SELECT * FROM free WHERE start + {count} - 1 <= last AND {unit} IS NOT NULL AND {take_has} IS NULL
    ORDER BY first LIMIT 1)
