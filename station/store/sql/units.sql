-- The units, perhaps only those with such serials, the last seen first, with the verdict of their last run.
SELECT f.serial, f.product, f.first_seen, f.last_seen,
       (SELECT r.verdict FROM runs r WHERE r.unit = f.id ORDER BY r.started DESC, r.id DESC LIMIT 1) AS verdict
FROM (SELECT * FROM units u {like} ORDER BY u.last_seen DESC LIMIT {limit}) AS f
