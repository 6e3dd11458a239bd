-- What a store of version 3 has besides that of version 2.
CREATE TABLE archives ( id @id, file TEXT NOT NULL, runs BIGINT NOT NULL, since @time NOT NULL, until @time NOT NULL,
    made @time NOT NULL );
INSERT INTO schema_version (version) VALUES (3);
