-- The pools, with what they have left, for how many days at the pace since a time, a week ago, and a warning.
-- Values are counted by indexes alone, and once.
WITH held AS MATERIALIZED (
    SELECT p.name AS pool, p.kind, coalesce(r.given, v.given, 0) AS given,
           coalesce(r.remaining, v.remaining, 0) AS "left",
           coalesce(r.retired, v.held - v.given - v.remaining, 0) AS retired, p.block,
           coalesce(r.units, v.remaining / p.block, 0) AS units, p.low,
           (SELECT count(*) FROM pool_rows w WHERE w.pool = p.id AND w.unit IS NOT NULL AND w.bound >= $1) AS taken
    FROM pools p
    LEFT JOIN (SELECT r.pool, sum(r.next - r.first) AS given,
                      sum(CASE WHEN r.retired THEN 0 ELSE r.last - r.next + 1 END) AS remaining,
                      sum(CASE WHEN r.retired THEN r.last - r.next + 1 ELSE 0 END) AS retired,
                      sum(CASE WHEN r.retired OR r.next > r.last THEN 0 ELSE {blocks} END) AS units
               FROM ranges r JOIN pools q ON q.id = r.pool GROUP BY r.pool) AS r ON r.pool = p.id
    LEFT JOIN (SELECT q.id AS pool, (SELECT count(*) FROM pool_rows b WHERE b.pool = q.id) AS held,
                      (SELECT count(*) FROM pool_rows b WHERE b.pool = q.id AND b.unit IS NOT NULL) AS given,
                      (SELECT count(*) FROM pool_rows b WHERE b.pool = q.id AND b.unit IS NULL
                          AND NOT b.retired) AS remaining
               FROM pools q WHERE q.kind = 'values') AS v ON v.pool = p.id),
paced AS (SELECT held.*, 7.0 * units * block / nullif(taken, 0) AS days FROM held)
SELECT pool, kind, given, "left", retired, block, units, low, days,
       CASE WHEN units = 0 THEN 'empty' WHEN units < low THEN 'low'
            WHEN days < 7 THEN round(CAST(days AS NUMERIC), 1) || ' days left'
            WHEN "left" * 10 < "left" + given THEN 'less than 10 % left' END AS warning
FROM paced ORDER BY pool
