INSERT INTO plan_versions (name, digest) VALUES ($1, $2) ON CONFLICT (digest) DO NOTHING
