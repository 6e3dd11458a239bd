-- Numbers the runs of units that count, since a run may arrive late: on from the lowest number, as older runs may have
-- been archived. Parameters as in save_run.sql.
UPDATE runs SET attempt = counted.attempt, superseded = counted.superseded
FROM (SELECT id, min(attempt) OVER (PARTITION BY unit, plan) - 1
                 + row_number() OVER (PARTITION BY unit, plan ORDER BY started, id) AS attempt,
             lead(id) OVER (PARTITION BY unit, plan ORDER BY started, id) IS NOT NULL AS superseded
      FROM runs WHERE attempt IS NOT NULL AND unit IN (
          SELECT u.id FROM {run_of} JOIN units u ON u.serial = r.unit WHERE r.counts)) AS counted
WHERE counted.id = runs.id AND (runs.attempt <> counted.attempt OR runs.superseded <> counted.superseded);
