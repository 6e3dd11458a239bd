-- The first address, from $1 to $2, that is twice in ranges, or in values that are addresses; and both pools.
SELECT first, name, before_name
FROM (SELECT first, name, max(last) OVER earlier AS before_last, lag(name) OVER earlier AS before_name
      FROM (SELECT r.first, r.last, p.name FROM ranges r JOIN pools p ON p.id = r.pool WHERE r.last >= $1 AND r.first <= $2
            UNION ALL
            SELECT b.number, b.number, p.name FROM pool_rows b JOIN pools p ON p.id = b.pool
            WHERE p.kind = 'values' AND b.number BETWEEN $1 AND $2) AS taken
      WINDOW earlier AS (ORDER BY first ROWS BETWEEN UNBOUNDED PRECEDING AND 1 PRECEDING)) AS sorted
WHERE first <= before_last ORDER BY first LIMIT 1
