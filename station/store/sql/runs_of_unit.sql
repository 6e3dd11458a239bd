-- The runs of a unit and plan that count, the last one first, whatever the stations' clocks said.
SELECT r.verdict, r.ended, r.place, r.place_name, s.name
FROM runs r JOIN units u ON u.id = r.unit JOIN stations s ON s.id = r.station
WHERE u.serial = $1 AND r.plan = $2 AND r.attempt IS NOT NULL ORDER BY r.id DESC LIMIT 100
