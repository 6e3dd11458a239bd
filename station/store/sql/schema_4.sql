-- Version 4: a run knows whose fault its failure is, who worked, whether it was a reference unit's, and which plan with
-- which files it ran.
--
-- `attempt` is NULL for a run that says nothing about the quality of units (it has not ended, it was interrupted, its
-- failure was not the unit's, or it was a reference unit's): the runs that have one are those that yields count.
-- `superseded`: a later run of the same unit and plan counts as the unit's last one. One index then has all that yields
-- need, without a look at the unit's other runs.
CREATE TABLE plan_versions (
    id @id,
    name @key NOT NULL,
    digest @key NOT NULL UNIQUE     -- SHA-256 of the plan and its files
);
CREATE TABLE plan_files (
    plan_version BIGINT NOT NULL REFERENCES plan_versions(id),
    step BIGINT NOT NULL,           -- from 1
    name @key NOT NULL,             -- as the plan calls it
    size BIGINT NOT NULL,           -- bytes
    sha256 @key NOT NULL,
    PRIMARY KEY (plan_version, step, name)
);
ALTER TABLE runs ADD COLUMN cause @key CHECK (cause IN ('unit', 'connection', 'station', 'operator'));
ALTER TABLE runs ADD COLUMN operator @key;
ALTER TABLE runs ADD COLUMN reference BOOLEAN NOT NULL DEFAULT FALSE;
ALTER TABLE runs ADD COLUMN plan_version BIGINT REFERENCES plan_versions(id);
ALTER TABLE runs ADD COLUMN superseded BOOLEAN NOT NULL DEFAULT FALSE;
ALTER TABLE steps ADD COLUMN cause TEXT CHECK (cause IN ('unit', 'connection', 'station', 'operator'));
UPDATE runs SET superseded = TRUE WHERE attempt IS NOT NULL AND EXISTS (SELECT 1 FROM runs later
    WHERE later.unit = runs.unit AND later.plan = runs.plan AND later.attempt > runs.attempt);
DROP INDEX IF EXISTS measurements_by_time;
CREATE INDEX measurements_by_name ON measurements (name, plan, started, value, minimum, maximum, unit, verdict);
DROP INDEX runs_by_time;
CREATE INDEX runs_by_time ON runs
    (started, attempt, superseded, verdict, seconds, station, place_name, plan, unit, cause, reference);
CREATE INDEX runs_of_reference ON runs (started) WHERE reference;
CREATE INDEX runs_without_end ON runs (station, started) WHERE ended IS NULL;
CREATE INDEX runs_by_plan_version ON runs (plan_version, started) WHERE plan_version IS NOT NULL;
