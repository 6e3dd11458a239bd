-- Counts runs of equal rounded times in a hash table: to find the percentiles, the server would sort all runs. Stations
-- get their names afterwards, since their numbers are quicker to compare.
SELECT {names}, sum(runs) AS runs, sum(units) AS units, sum(passed_last) AS passed_last, sum(first) AS first,
       sum(passed_first) AS passed_first, sum(interrupted) AS interrupted,
       min(seconds) FILTER (WHERE rank >= 0.5 * ranks) AS median, min(seconds) FILTER (WHERE rank >= 0.9 * ranks) AS p90
FROM (SELECT timed.*, sum(runs) OVER (PARTITION BY {names} ORDER BY seconds) AS rank,
             nullif(sum(runs) FILTER (WHERE seconds IS NOT NULL) OVER (PARTITION BY {names}), 0) AS ranks
      FROM (SELECT {named} FROM (
          SELECT CASE WHEN r.seconds < 100 THEN floor(r.seconds * 10 + 0.5) / 10
                      ELSE floor(r.seconds + 0.5) END AS seconds, {group}, {counts}
          FROM runs r WHERE {runs} AND r.verdict <> 'running' AND NOT r.reference {groups}) AS r {join}) AS timed) AS ranked
GROUP BY {names}
