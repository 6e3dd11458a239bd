-- The units whose serials lie between two, the last seen first, with the verdict of their last run.
SELECT f.serial, f.product, f.first_seen, f.last_seen,
       (SELECT r.verdict FROM runs r WHERE r.unit = f.id ORDER BY r.started DESC, r.id DESC LIMIT 1) AS verdict
FROM (SELECT * FROM units u WHERE u.serial >= $1 AND u.serial < $2 ORDER BY u.last_seen DESC LIMIT {limit}) AS f
