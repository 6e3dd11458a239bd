-- What the last runs were of: plans, products, stations and places to choose from.
SELECT DISTINCT r.plan, u.product, s.name AS station, r.place_name AS place
FROM (SELECT plan, unit, station, place_name FROM runs ORDER BY started DESC LIMIT 5000) AS r
JOIN stations s ON s.id = r.station LEFT JOIN units u ON u.id = r.unit
