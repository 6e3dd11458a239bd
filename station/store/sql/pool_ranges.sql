-- The ranges of a pool.
SELECT (SELECT {take_address} FROM (SELECT r.first AS number) AS a) AS first,
       (SELECT {take_address} FROM (SELECT r.last AS number) AS a) AS last,
       r.next - r.first AS given, r.last - r.next + 1 AS "left", r.retired
FROM ranges r JOIN pools p ON p.id = r.pool WHERE p.name = $1 ORDER BY r.first
