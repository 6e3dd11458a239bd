-- Leaves a known station as it is: its `seen` comes from the store's clock.
INSERT INTO stations (key, name, seen) VALUES ($1, $2, $3) ON CONFLICT (key) DO NOTHING
