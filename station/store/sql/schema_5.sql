-- Version 5: a measurement knows its run's station and place, and its index has the run, so that the index alone
-- answers by place and without reference units.
ALTER TABLE measurements ADD COLUMN station BIGINT;
ALTER TABLE measurements ADD COLUMN place_name @key;
DROP INDEX measurements_by_name;
UPDATE measurements SET station = r.station, place_name = r.place_name FROM runs r WHERE r.id = measurements.run;
CREATE INDEX measurements_by_name ON measurements
    (name, plan, started, value, minimum, maximum, unit, verdict, station, place_name, run);
