-- A run with the three runs of its unit before it and the three after it, in the order of time.
WITH of_unit AS (
    SELECT run, row_number() OVER (ORDER BY started, id) AS number FROM runs
    WHERE unit = (SELECT unit FROM runs WHERE run = $1))
SELECT run FROM of_unit WHERE abs(number - (SELECT number FROM of_unit WHERE run = $1)) <= 3 ORDER BY number
