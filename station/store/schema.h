#pragma once
// The store's schema, as docs/database.md explains it. A change of it is one more migration at the end, never a change
// of one that stands here: databases in factories are brought forward by those that they have not seen yet.

#include <array>
#include <string_view>

namespace station {

// "@id" is a key that the database counts up. Statements end with ";\n".
constexpr std::string_view kVersion1 = R"(
CREATE TABLE stations (
    id @id,
    name TEXT NOT NULL,             -- of the machine
    key TEXT NOT NULL UNIQUE,       -- of its spool file, one a process that records
    seen TEXT NOT NULL
);
CREATE TABLE units (
    id @id,
    serial TEXT NOT NULL UNIQUE,
    product TEXT,
    first_seen TEXT NOT NULL,
    last_seen TEXT NOT NULL
);
CREATE TABLE runs (
    id @id,
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
    verdict TEXT NOT NULL,          -- running, passed, failed, interrupted
    attempt BIGINT,                 -- which of the judged runs of unit and plan, from 1
    failed_step TEXT,               -- title of the first one
    failure TEXT,
    variables TEXT NOT NULL         -- a JSON object
);
CREATE INDEX runs_by_unit ON runs (unit, started);
CREATE INDEX runs_by_time ON runs (started);
CREATE INDEX runs_by_failed_step ON runs (failed_step, started) WHERE failed_step IS NOT NULL;
CREATE INDEX runs_that_run ON runs (station) WHERE verdict = 'running';
CREATE TABLE steps (
    run BIGINT NOT NULL REFERENCES runs(id),
    step BIGINT NOT NULL,           -- from 1
    title TEXT NOT NULL,
    verdict TEXT NOT NULL,          -- passed, failed, not run
    reply TEXT,
    cut BIGINT NOT NULL,            -- bytes that were cut off the reply
    failure TEXT,
    hint TEXT,
    started_after DOUBLE PRECISION NOT NULL,  -- seconds from the start of the run
    seconds DOUBLE PRECISION NOT NULL,
    attempts BIGINT NOT NULL,
    PRIMARY KEY (run, step)
);
CREATE TABLE measurements (
    run BIGINT NOT NULL REFERENCES runs(id),
    step BIGINT NOT NULL,
    name TEXT NOT NULL,
    value DOUBLE PRECISION,
    minimum DOUBLE PRECISION,
    maximum DOUBLE PRECISION,
    unit TEXT,
    verdict TEXT NOT NULL,          -- passed, failed
    PRIMARY KEY (run, step, name)
);
CREATE TABLE pools (
    id @id,
    name TEXT NOT NULL UNIQUE,
    kind TEXT NOT NULL,             -- addresses, values
    low BIGINT NOT NULL             -- fewer than this left is worth a warning
);
CREATE TABLE ranges (
    id @id,
    pool BIGINT NOT NULL REFERENCES pools(id),
    first BIGINT NOT NULL,          -- addresses as 48-bit numbers
    last BIGINT NOT NULL,
    next BIGINT NOT NULL,           -- the first that nobody has yet; last + 1 when all are given
    retired BIGINT NOT NULL         -- 1 when those that are left are never given
);
CREATE TABLE pool_rows (
    id @id,
    pool BIGINT NOT NULL REFERENCES pools(id),
    value TEXT NOT NULL,
    number BIGINT UNIQUE,           -- an address as a number
    unit BIGINT REFERENCES units(id),  -- whose it is, NULL while it is free
    run BIGINT REFERENCES runs(id),
    bound TEXT,
    retired BIGINT NOT NULL,
    UNIQUE (pool, value)
);
CREATE INDEX pool_rows_by_value ON pool_rows (value);
CREATE INDEX pool_rows_by_unit ON pool_rows (unit, pool);
CREATE INDEX pool_rows_that_are_free ON pool_rows (pool, id) WHERE unit IS NULL AND retired = 0;
CREATE VIEW addresses AS
    SELECT b.value AS address, p.name AS pool, u.serial, r.run, b.bound
    FROM pool_rows b JOIN pools p ON p.id = b.pool JOIN units u ON u.id = b.unit JOIN runs r ON r.id = b.run
    WHERE p.kind = 'addresses';
)";

// Version 2: a run can be deleted (pool_rows has its name instead of its key); verdicts and kinds are checked; a
// measurement carries its run's plan and start, so that one index answers for a value over time; a pool knows how much
// a unit takes of it. PostgreSQL gets types of its own, and text keys that compare by bytes.
//
//     measurements  + plan, started (those of the run)
//     pool_rows     run: TEXT, the name of the run that took it, which may be archived by now
//     pools         + block (how many values a unit took the last time; 1 at first)
//
// SQLite cannot change a constraint, so that a table is made anew.
constexpr std::string_view kSqlite2 = R"(
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
)";

constexpr std::string_view kPostgresql2 = R"(
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
)";

// Version 3: where the runs are that were moved out of the store.
constexpr std::string_view kSqlite3 = R"(
CREATE TABLE archives (
    id INTEGER PRIMARY KEY,
    file TEXT NOT NULL,             -- with its path, as it was when it was made
    runs BIGINT NOT NULL,
    since TEXT NOT NULL,            -- start of the first one
    until TEXT NOT NULL,            -- start of the last one
    made TEXT NOT NULL
);
)";
constexpr std::string_view kPostgresql3 = R"(
CREATE TABLE archives (
    id BIGINT GENERATED BY DEFAULT AS IDENTITY PRIMARY KEY,
    file TEXT NOT NULL,
    runs BIGINT NOT NULL,
    since TIMESTAMPTZ NOT NULL,
    until TIMESTAMPTZ NOT NULL,
    made TIMESTAMPTZ NOT NULL
);
)";

struct Migration {
    std::string_view sqlite, postgresql;
};
constexpr std::array<Migration, 3> kMigrations = {
    {{kVersion1, kVersion1}, {kSqlite2, kPostgresql2}, {kSqlite3, kPostgresql3}}};

}  // namespace station
