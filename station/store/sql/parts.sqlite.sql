SELECT {group}, {counts}, nearest_rank(r.seconds, 0.5) FILTER (WHERE r.attempt IS NOT NULL) AS median,
       nearest_rank(r.seconds, 0.9) FILTER (WHERE r.attempt IS NOT NULL) AS p90
FROM runs r {join} WHERE {runs} AND r.verdict <> 'running' AND NOT r.reference {groups}
