-- The steps at which runs of a filter failed, the most frequent first. Leaves out faults of reference units.
SELECT step, failures, 100.0 * failures / sum(failures) OVER () AS percent,
       100.0 * sum(failures) OVER (ORDER BY failures DESC, step) / sum(failures) OVER () AS cumulative_percent
FROM (SELECT coalesce(r.failed_step, r.failure) AS step, count(*) AS failures FROM runs r
      WHERE {runs} AND r.verdict = 'failed' AND NOT (r.reference AND {cause} = 'unit') GROUP BY step) AS steps
ORDER BY failures DESC, step
