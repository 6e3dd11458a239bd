-- The oldest readings of a value, a row each.
SELECT m.started, r.run, u.serial, s.name AS station, r.place_name AS place, m.value, m.minimum, m.maximum, m.unit, m.verdict
FROM measurements m JOIN runs r ON r.id = m.run JOIN stations s ON s.id = r.station LEFT JOIN units u ON u.id = r.unit
WHERE {readings} ORDER BY m.started, m.run, m.step LIMIT {count}
