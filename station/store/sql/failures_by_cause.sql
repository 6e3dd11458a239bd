-- Runs of a filter that failed or were interrupted through no fault of the unit, by whose fault that was, and where.
SELECT {cause} AS cause, s.name AS station, r.place_name AS place, coalesce(r.failed_step, r.failure) AS step,
       count(*) AS failures
FROM runs r JOIN stations s ON s.id = r.station
WHERE {runs} AND r.verdict IN ('failed', 'interrupted') AND {cause} <> 'unit'
GROUP BY {cause}, s.name, r.place_name, coalesce(r.failed_step, r.failure) ORDER BY failures DESC, cause, station, place, step
