-- A store of version 2, as that version has made and filled it, without the indexes and views that later versions leave
-- alone. The words with @ are those of the schema's files, and @bool: BIGINT on SQLite, BOOLEAN on PostgreSQL.
CREATE TABLE schema_version (version BIGINT PRIMARY KEY);
CREATE TABLE stations ( id @id, name TEXT NOT NULL, key @key NOT NULL UNIQUE, seen @time NOT NULL );
CREATE TABLE units ( id @id, serial @key NOT NULL UNIQUE, product TEXT, first_seen @time NOT NULL, last_seen @time NOT
    NULL );
CREATE TABLE runs ( id @id, run @key NOT NULL UNIQUE, unit BIGINT REFERENCES units(id), plan @key NOT NULL, station
    BIGINT NOT NULL REFERENCES stations(id), place BIGINT NOT NULL, place_name @key NOT NULL, peer TEXT, started @time
    NOT NULL, ended @time, seconds DOUBLE PRECISION, verdict TEXT NOT NULL CHECK (verdict IN ('running', 'passed',
    'failed', 'interrupted')), attempt BIGINT, failed_step @key, failure TEXT, variables @json NOT NULL );
CREATE INDEX runs_by_unit ON runs (unit, started);
CREATE INDEX runs_by_time ON runs (started);
CREATE TABLE steps ( run BIGINT NOT NULL REFERENCES runs(id), step BIGINT NOT NULL, title TEXT NOT NULL, verdict
    TEXT NOT NULL, reply TEXT, cut BIGINT NOT NULL, failure TEXT, hint TEXT, started_after DOUBLE PRECISION NOT
    NULL, seconds DOUBLE PRECISION NOT NULL, attempts BIGINT NOT NULL, PRIMARY KEY (run, step) );
CREATE TABLE measurements ( run BIGINT NOT NULL REFERENCES runs(id), step BIGINT NOT NULL, name @key NOT NULL,
    value DOUBLE PRECISION, minimum DOUBLE PRECISION, maximum DOUBLE PRECISION, unit TEXT, verdict TEXT NOT NULL,
    plan @key NOT NULL, started @time NOT NULL, PRIMARY KEY (run, step, name) );
CREATE TABLE pools ( id @id, name @key NOT NULL UNIQUE, kind TEXT NOT NULL, low BIGINT NOT NULL, block BIGINT NOT NULL
    DEFAULT 1 );
CREATE TABLE ranges ( id @id, pool BIGINT NOT NULL REFERENCES pools(id), first BIGINT NOT NULL, last BIGINT NOT
    NULL, next BIGINT NOT NULL, retired @bool NOT NULL );
CREATE TABLE pool_rows ( id @id, pool BIGINT NOT NULL REFERENCES pools(id), value @key NOT NULL, number BIGINT
    UNIQUE, unit BIGINT REFERENCES units(id), run @key, bound @time, retired @bool NOT NULL, UNIQUE (pool, value) );
INSERT INTO schema_version (version) VALUES (1), (2);
INSERT INTO stations (name, key, seen) VALUES ('left', '0123456789abcdef', '2026-11-21T17:31:00.500Z');
INSERT INTO units (serial, product, first_seen, last_seen) VALUES
    ('A', 'X', '2026-11-21T17:30:00.000Z', '2026-11-21T17:32:00.000Z'),
    ('B', NULL, '2026-11-21T17:30:30.120Z', '2026-11-21T17:30:30.120Z');
INSERT INTO runs (run, unit, plan, station, place, place_name, peer, started, ended, seconds, verdict, attempt,
                  failed_step, failure, variables) VALUES
    ('20261121T173000.000Z-00000001', 1, 'line', 1, 1, 'left', '127.0.0.1:1', '2026-11-21T17:30:00.000Z',
     '2026-11-21T17:30:10.250Z', 10.25, 'failed', 1, 'PING', 'no reply', '{"serial":"A"}'),
    ('20261121T173030.120Z-00000002', 2, 'line', 1, 2, 'right', NULL, '2026-11-21T17:30:30.120Z', NULL, NULL,
     'interrupted', NULL, 'PING', 'no reply', '{"serial":"B"}'),
    ('20261121T173200.000Z-00000003', 1, 'line', 1, 1, 'left', '127.0.0.1:1', '2026-11-21T17:32:00.000Z',
     '2026-11-21T17:32:10.250Z', 10.25, 'passed', 2, NULL, NULL, '{"serial":"A"}');
INSERT INTO steps (run, step, title, verdict, reply, cut, failure, hint, started_after, seconds, attempts) VALUES
    (1, 1, 'PING', 'failed', 'PING 2', 0, 'no reply', 'ask', 0, 0.5, 2);
INSERT INTO measurements (run, step, name, value, minimum, maximum, unit, verdict, plan, started) VALUES
    (1, 1, 'volts', 2.125, 1, NULL, 'V', 'passed', 'line', '2026-11-21T17:30:00.000Z');
INSERT INTO pools (name, kind, low) VALUES ('mac', 'addresses', 5), ('key', 'values', 100);
INSERT INTO ranges (pool, first, last, next, retired) VALUES (1, 2199023255552, 2199023255561, 2199023255552, FALSE);
-- Of version 1, which did not know its number.
INSERT INTO pool_rows (pool, value, number, retired) VALUES (2, '06-00-00-00-00-1f', NULL, FALSE);
