-- The units that are claimed, and where other stations that were seen lately have them in work. $1: serial numbers;
-- $2: this station's key.
SELECT u.serial, u.product, w.place_name, w.station
FROM units u LEFT JOIN (SELECT r.unit, r.place_name, s.name AS station FROM runs r JOIN stations s ON s.id = r.station
    WHERE r.verdict = 'running' AND s.key <> $2 AND {seen}) AS w ON w.unit = u.id
WHERE u.serial @listed
