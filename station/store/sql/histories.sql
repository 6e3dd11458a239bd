-- The runs of units that count, the last one first, whatever the stations' clocks said. $1: the units' serial numbers.
SELECT serial, plan, verdict, ended, place, place_name, station FROM (
    SELECT u.serial, r.plan, r.verdict, r.ended, r.place, r.place_name, s.name AS station,
           row_number() OVER (PARTITION BY r.unit, r.plan ORDER BY r.id DESC) AS newest
    FROM units u JOIN runs r ON r.unit = u.id JOIN stations s ON s.id = r.station
    WHERE u.serial @listed AND r.attempt IS NOT NULL) AS counted
WHERE newest <= 100 ORDER BY newest
