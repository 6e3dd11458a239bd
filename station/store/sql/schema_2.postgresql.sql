-- Version 2: a run can be deleted (pool_rows has its name instead of its key); verdicts and kinds are checked; a
-- measurement carries its run's plan and start, so that one index answers for a value over time; a pool knows how much
-- a unit takes of it.
-- PostgreSQL gets types of its own, and text keys that compare by bytes.
DROP VIEW addresses;
DROP INDEX pool_rows_that_are_free;
ALTER TABLE stations
    ALTER key TYPE TEXT COLLATE "C",
    ALTER seen TYPE TIMESTAMPTZ(3) USING seen::TIMESTAMPTZ;
ALTER TABLE units
    ALTER serial TYPE TEXT COLLATE "C",
    ALTER first_seen TYPE TIMESTAMPTZ(3) USING first_seen::TIMESTAMPTZ,
    ALTER last_seen TYPE TIMESTAMPTZ(3) USING last_seen::TIMESTAMPTZ;
ALTER TABLE pools
    ALTER name TYPE TEXT COLLATE "C",
    ADD block BIGINT NOT NULL DEFAULT 1,
    ADD CONSTRAINT pools_kind CHECK (kind IN ('addresses', 'values'));
ALTER TABLE ranges
    ALTER retired TYPE BOOLEAN USING retired <> 0,
    ADD CONSTRAINT ranges_overlap EXCLUDE USING gist (int8range(first, last, '[]') WITH &&) DEFERRABLE INITIALLY DEFERRED;
ALTER TABLE pool_rows ADD run_name TEXT COLLATE "C";
UPDATE pool_rows b SET run_name = r.run FROM runs r WHERE r.id = b.run;
ALTER TABLE pool_rows DROP run;
ALTER TABLE pool_rows RENAME run_name TO run;
ALTER TABLE pool_rows
    ALTER value TYPE TEXT COLLATE "C",
    ALTER bound TYPE TIMESTAMPTZ(3) USING bound::TIMESTAMPTZ,
    ALTER retired TYPE BOOLEAN USING retired <> 0;
ALTER TABLE runs
    ALTER run TYPE TEXT COLLATE "C",
    ALTER plan TYPE TEXT COLLATE "C",
    ALTER place_name TYPE TEXT COLLATE "C",
    ALTER failed_step TYPE TEXT COLLATE "C",
    ALTER started TYPE TIMESTAMPTZ(3) USING started::TIMESTAMPTZ,
    ALTER ended TYPE TIMESTAMPTZ(3) USING ended::TIMESTAMPTZ,
    ALTER variables TYPE JSONB USING replace(variables, '\u0000', '\ufffd')::JSONB,
    ADD CONSTRAINT runs_verdict CHECK (verdict IN ('running', 'passed', 'failed', 'interrupted'));
ALTER TABLE steps ADD CONSTRAINT steps_verdict CHECK (verdict IN ('passed', 'failed', 'not run'));
CREATE TABLE new_measurements (
    run BIGINT NOT NULL,
    step BIGINT NOT NULL,
    name TEXT COLLATE "C" NOT NULL,
    value DOUBLE PRECISION,
    minimum DOUBLE PRECISION,
    maximum DOUBLE PRECISION,
    unit TEXT,
    verdict TEXT NOT NULL CONSTRAINT measurements_verdict CHECK (verdict IN ('passed', 'failed')),
    plan TEXT COLLATE "C" NOT NULL,
    started TIMESTAMPTZ(3) NOT NULL
);
INSERT INTO new_measurements SELECT m.run, m.step, m.name, m.value, m.minimum, m.maximum, m.unit, m.verdict, r.plan,
    r.started FROM measurements m JOIN runs r ON r.id = m.run;
DROP TABLE measurements;
ALTER TABLE new_measurements RENAME TO measurements;
ALTER TABLE measurements
    ADD CONSTRAINT measurements_pkey PRIMARY KEY (run, step, name),
    ADD CONSTRAINT measurements_run_fkey FOREIGN KEY (run) REFERENCES runs(id);
CREATE INDEX runs_that_failed ON runs (started) WHERE verdict = 'failed';
CREATE INDEX units_by_time ON units (last_seen);
CREATE INDEX pool_rows_by_time ON pool_rows (pool, bound) WHERE unit IS NOT NULL;
CREATE INDEX pool_rows_that_are_free ON pool_rows (pool, id) WHERE unit IS NULL AND NOT retired;
CREATE INDEX ranges_that_are_free ON ranges (pool, first) WHERE next <= last AND NOT retired;
CREATE INDEX measurements_by_time ON measurements (started, plan, name) INCLUDE (value, minimum, maximum, unit, verdict);
CREATE VIEW addresses AS
    SELECT b.value AS address, p.name AS pool, u.serial, b.run, b.bound
    FROM pool_rows b JOIN pools p ON p.id = b.pool JOIN units u ON u.id = b.unit
    WHERE p.kind = 'addresses';
