-- Version 2: a run can be deleted (pool_rows has its name instead of its key); verdicts and kinds are checked; a
-- measurement carries its run's plan and start, so that one index answers for a value over time; a pool knows how much
-- a unit takes of it.
-- SQLite cannot change a constraint, so that a table is made anew.
DROP VIEW addresses;
CREATE TABLE new_pools (
    id INTEGER PRIMARY KEY,
    name TEXT NOT NULL UNIQUE,
    kind TEXT NOT NULL CHECK (kind IN ('addresses', 'values')),
    low BIGINT NOT NULL,            -- fewer units than this left is worth a warning
    block BIGINT NOT NULL DEFAULT 1
);
INSERT INTO new_pools (id, name, kind, low) SELECT id, name, kind, low FROM pools;
DROP TABLE pools;
ALTER TABLE new_pools RENAME TO pools;
CREATE TABLE new_pool_rows (
    id INTEGER PRIMARY KEY,
    pool BIGINT NOT NULL REFERENCES pools(id),
    value TEXT NOT NULL,
    number BIGINT UNIQUE,           -- of what can be read as an address, whatever the pool's kind
    unit BIGINT REFERENCES units(id),
    run TEXT,
    bound TEXT,
    retired BIGINT NOT NULL,
    UNIQUE (pool, value)
);
INSERT INTO new_pool_rows SELECT b.id, b.pool, b.value, b.number, b.unit, r.run, b.bound, b.retired
    FROM pool_rows b LEFT JOIN runs r ON r.id = b.run;
DROP TABLE pool_rows;
ALTER TABLE new_pool_rows RENAME TO pool_rows;
CREATE TABLE new_measurements (
    run BIGINT NOT NULL REFERENCES runs(id),
    step BIGINT NOT NULL,
    name TEXT NOT NULL,
    value DOUBLE PRECISION,
    minimum DOUBLE PRECISION,
    maximum DOUBLE PRECISION,
    unit TEXT,
    verdict TEXT NOT NULL CHECK (verdict IN ('passed', 'failed')),
    plan TEXT NOT NULL,
    started TEXT NOT NULL,
    PRIMARY KEY (run, step, name)
);
INSERT INTO new_measurements SELECT m.run, m.step, m.name, m.value, m.minimum, m.maximum, m.unit, m.verdict, r.plan,
    r.started FROM measurements m JOIN runs r ON r.id = m.run;
DROP TABLE measurements;
ALTER TABLE new_measurements RENAME TO measurements;
CREATE TABLE new_runs (
    id INTEGER PRIMARY KEY,
    run TEXT NOT NULL UNIQUE,
    unit BIGINT REFERENCES units(id),
    plan TEXT NOT NULL,
    station BIGINT NOT NULL REFERENCES stations(id),
    place BIGINT NOT NULL,
    place_name TEXT NOT NULL,
    peer TEXT,
    started TEXT NOT NULL,
    ended TEXT,
    seconds DOUBLE PRECISION,
    verdict TEXT NOT NULL CHECK (verdict IN ('running', 'passed', 'failed', 'interrupted')),
    attempt BIGINT,
    failed_step TEXT,
    failure TEXT,
    variables TEXT NOT NULL
);
INSERT INTO new_runs SELECT id, run, unit, plan, station, place, place_name, peer, started, ended, seconds, verdict,
    attempt, failed_step, failure, variables FROM runs;
DROP TABLE runs;
ALTER TABLE new_runs RENAME TO runs;
CREATE INDEX runs_by_unit ON runs (unit, started);
CREATE INDEX runs_by_time ON runs (started);
CREATE INDEX runs_by_failed_step ON runs (failed_step, started) WHERE failed_step IS NOT NULL;
CREATE INDEX runs_that_run ON runs (station) WHERE verdict = 'running';
CREATE INDEX runs_that_failed ON runs (started) WHERE verdict = 'failed';
CREATE INDEX units_by_time ON units (last_seen);
CREATE INDEX pool_rows_by_value ON pool_rows (value);
CREATE INDEX pool_rows_by_unit ON pool_rows (unit, pool);
CREATE INDEX pool_rows_by_time ON pool_rows (pool, bound) WHERE unit IS NOT NULL;
CREATE INDEX pool_rows_that_are_free ON pool_rows (pool, id) WHERE unit IS NULL AND NOT retired;
CREATE INDEX ranges_that_are_free ON ranges (pool, first) WHERE next <= last AND NOT retired;
CREATE INDEX measurements_by_time ON measurements (started, plan, name, value, minimum, maximum, unit, verdict);
CREATE VIEW addresses AS
    SELECT b.value AS address, p.name AS pool, u.serial, b.run, b.bound
    FROM pool_rows b JOIN pools p ON p.id = b.pool JOIN units u ON u.id = b.unit
    WHERE p.kind = 'addresses';
