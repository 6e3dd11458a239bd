-- Numbers the runs of a unit and plan that count, since a run may arrive late: on from the lowest number, as older runs
-- may have been archived.
UPDATE runs SET attempt = counted.attempt, superseded = counted.superseded
FROM (SELECT id, min(attempt) OVER () - 1 + row_number() OVER (ORDER BY started, id) AS attempt,
             lead(id) OVER (ORDER BY started, id) IS NOT NULL AS superseded
      FROM runs WHERE unit = (SELECT id FROM units WHERE serial = $1) AND plan = $2 AND attempt IS NOT NULL) AS counted
WHERE counted.id = runs.id AND (runs.attempt <> counted.attempt OR runs.superseded <> counted.superseded);
