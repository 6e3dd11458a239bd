-- What the row of a run refers to, besides its unit. Parameters as in save_run.sql.

-- Leaves a known station as it is: its `seen` comes from the store's clock.
INSERT INTO stations (key, name, seen) SELECT r.station ->> 'key', r.station ->> 'name', r.start FROM {run_of}
WHERE TRUE ON CONFLICT (key) DO NOTHING;

INSERT INTO plan_versions (name, digest) SELECT r.plan, r.plan_sha256 FROM {run_of}
WHERE r.plan_sha256 IS NOT NULL ON CONFLICT (digest) DO NOTHING;

INSERT INTO plan_files (plan_version, step, name, size, sha256)
SELECT v.id, CAST(f.value ->> 'step' AS BIGINT), f.value ->> 'name', CAST(f.value ->> 'size' AS BIGINT),
       f.value ->> 'sha256'
FROM {run_of} JOIN plan_versions v ON v.digest = r.plan_sha256, @each(r.files) AS f
WHERE TRUE ON CONFLICT (plan_version, step, name) DO NOTHING;
