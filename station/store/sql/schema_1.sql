-- The first version of the schema. Types are texts and numbers on both databases.
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
