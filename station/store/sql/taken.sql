-- What units have of the pools. $1: their serial numbers.
SELECT u.serial, p.name, b.value, b.number
FROM units u JOIN pool_rows b ON b.unit = u.id JOIN pools p ON p.id = b.pool
WHERE u.serial @listed ORDER BY CASE p.kind WHEN 'addresses' THEN b.number END, b.id
