-- What a store of version 3 has besides that of version 2.
CREATE TABLE archives ( id @id, file TEXT NOT NULL, runs BIGINT NOT NULL, since @time NOT NULL, until @time NOT NULL,
    made @time NOT NULL );
INSERT INTO schema_version (version) VALUES (3);
INSERT INTO archives (file, runs, since, until, made) VALUES
    ('old.gz', 1, '2026-01-01T00:00:00.000Z', '2026-01-01T00:00:00.000Z', '2026-11-21T17:00:00.000Z');
