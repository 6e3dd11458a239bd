-- The ranges of a pool.
SELECT r.first, r.last, r.next - r.first AS given, r.last - r.next + 1 AS "left", r.retired
FROM ranges r JOIN pools p ON p.id = r.pool WHERE p.name = $1 ORDER BY r.first
