INSERT INTO plan_files (plan_version, step, name, size, sha256)
VALUES ((SELECT id FROM plan_versions WHERE digest = $1), $2, $3, $4, $5) ON CONFLICT (plan_version, step, name) DO NOTHING
