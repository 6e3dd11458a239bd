-- What a store of version 4 has besides that of version 3, without what concerns indexes only.
CREATE TABLE plan_versions ( id @id, name @key NOT NULL, digest @key NOT NULL UNIQUE );
CREATE TABLE plan_files ( plan_version BIGINT NOT NULL REFERENCES plan_versions(id), step BIGINT NOT NULL, name @key NOT
    NULL, size BIGINT NOT NULL, sha256 @key NOT NULL, PRIMARY KEY (plan_version, step, name) );
ALTER TABLE runs ADD COLUMN cause @key CHECK (cause IN ('unit', 'connection', 'station', 'operator'));
ALTER TABLE runs ADD COLUMN operator @key;
ALTER TABLE runs ADD COLUMN reference BOOLEAN NOT NULL DEFAULT FALSE;
ALTER TABLE runs ADD COLUMN plan_version BIGINT REFERENCES plan_versions(id);
ALTER TABLE runs ADD COLUMN superseded BOOLEAN NOT NULL DEFAULT FALSE;
ALTER TABLE steps ADD COLUMN cause TEXT CHECK (cause IN ('unit', 'connection', 'station', 'operator'));
CREATE INDEX measurements_by_name ON measurements (name, plan, started, value, minimum, maximum, unit, verdict);
INSERT INTO schema_version (version) VALUES (4);
INSERT INTO plan_versions (name, digest) VALUES ('line', 'abc');
INSERT INTO plan_files (plan_version, step, name, size, sha256) VALUES (1, 1, 'kernel.bin', 7, 'def');
UPDATE runs SET superseded = TRUE, plan_version = 1, operator = 'Eve' WHERE id = 1;
