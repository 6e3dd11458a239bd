-- Yield and cycle time of the runs of a filter, a row for each {group}. Runs that say nothing about the quality of units
-- have no attempt. A unit is counted where its last run of the plan is, so that the numbers of parts can be added up.
-- The median and the 90th percentile are the nearest ranks.
SELECT {names}, units, runs, 100.0 * passed_first / nullif(first, 0) AS first_pass_yield,
       100.0 * passed_last / nullif(units, 0) AS final_yield, runs - first AS retests, interrupted, median_seconds, p90_seconds
FROM (SELECT {group}, count(r.attempt) AS runs,
             count(*) FILTER (WHERE r.attempt IS NOT NULL AND NOT r.superseded) AS units,
             count(*) FILTER (WHERE r.attempt IS NOT NULL AND NOT r.superseded AND r.verdict = 'passed') AS passed_last,
             count(*) FILTER (WHERE r.attempt = 1) AS first,
             count(*) FILTER (WHERE r.attempt = 1 AND r.verdict = 'passed') AS passed_first,
             count(*) FILTER (WHERE r.verdict = 'interrupted') AS interrupted,
             {median} FILTER (WHERE r.attempt IS NOT NULL) AS median_seconds,
             {p90} FILTER (WHERE r.attempt IS NOT NULL) AS p90_seconds
      FROM runs r {join} WHERE {runs} AND r.verdict <> 'running' AND NOT r.reference {parts}) AS parts
ORDER BY {ordinals}
