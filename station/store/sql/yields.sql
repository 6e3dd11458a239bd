-- Yield and cycle time of the runs of a filter, a row for each of {names}. Runs that say nothing about the quality of
-- units have no attempt. A unit is counted where its last run of the plan is, so that the numbers of parts can be added
-- up. The median and the 90th percentile are the nearest ranks, rounded.
WITH parts AS ({parts})
SELECT {shown}, units, runs, 100.0 * passed_first / nullif(first, 0) AS first_pass_yield,
       100.0 * passed_last / nullif(units, 0) AS final_yield, runs - first AS retests, interrupted,
       CASE WHEN median < 100 THEN floor(median * 10 + 0.5) / 10 ELSE floor(median + 0.5) END AS median_seconds,
       CASE WHEN p90 < 100 THEN floor(p90 * 10 + 0.5) / 10 ELSE floor(p90 + 0.5) END AS p90_seconds
FROM parts ORDER BY {names}
