count(r.attempt) AS runs, count(*) FILTER (WHERE r.attempt IS NOT NULL AND NOT r.superseded) AS units,
count(*) FILTER (WHERE r.attempt IS NOT NULL AND NOT r.superseded AND r.verdict = 'passed') AS passed_last,
count(*) FILTER (WHERE r.attempt = 1) AS first,
count(*) FILTER (WHERE r.attempt = 1 AND r.verdict = 'passed') AS passed_first,
count(*) FILTER (WHERE r.verdict = 'interrupted') AS interrupted
