-- All about a unit.
SELECT u.serial, u.product, u.first_seen, u.last_seen,
       (SELECT r.verdict FROM runs r WHERE r.unit = u.id ORDER BY r.started DESC, r.id DESC LIMIT 1) AS verdict
FROM units u WHERE u.id = $1;

SELECT p.name AS pool, b.value, b.run, b.bound FROM pool_rows b JOIN pools p ON p.id = b.pool WHERE b.unit = $1
ORDER BY p.name, b.id;

{run_list} WHERE r.unit = $1 ORDER BY r.started, r.id;

SELECT a.file, a.runs, a.since, a.until FROM archives a JOIN units u ON u.first_seen <= a.until WHERE u.id = $1
ORDER BY a.id;

{files} WHERE r.unit = $1 ORDER BY r.started, r.id, f.step, f.name;
