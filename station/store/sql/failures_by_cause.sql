-- Runs of a filter that failed or were interrupted through no fault of the unit, by whose fault that was, and where.
SELECT r.cause, s.name AS station, r.place_name AS place, coalesce(r.failed_step, r.failure) AS step, count(*) AS failures
FROM runs r JOIN stations s ON s.id = r.station
WHERE {runs} AND r.verdict IN ('failed', 'interrupted') AND r.cause <> 'unit'
GROUP BY r.cause, s.name, r.place_name, coalesce(r.failed_step, r.failure) ORDER BY failures DESC, cause, station, place, step
