SELECT r.run, v.name AS plan, v.digest AS plan_sha256, f.step, f.name AS file, f.size, f.sha256
FROM runs r JOIN plan_versions v ON v.id = r.plan_version LEFT JOIN plan_files f ON f.plan_version = v.id
