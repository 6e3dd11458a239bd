-- For how many more units the pool $1 is enough. Values are counted up to the pool's limit.
SELECT p.low, CASE p.kind
    WHEN 'addresses' THEN (SELECT coalesce(sum({blocks}), 0) FROM ranges r
        WHERE r.pool = p.id AND r.next <= r.last AND NOT r.retired)
    ELSE (SELECT count(*) FROM (SELECT 1 FROM pool_rows WHERE pool = {pool} AND unit IS NULL AND NOT retired
        LIMIT (SELECT (low + 1) * {count} FROM pools WHERE name = $1)) AS free) / {count} END
    FROM pools p WHERE p.name = $1
