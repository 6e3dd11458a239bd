-- Steps, with what they found. $1 is an array of them in JSON: as in a record, with the run's name and their numbers.
-- Refused without the row of the run. Runs are looked up one by one: for a join, PostgreSQL may read all of them.
INSERT INTO steps (run, step, title, verdict, reply, cut, failure, hint, started_after, seconds, attempts, cause)
SELECT (SELECT id FROM runs WHERE run = s.run), s.step, s.title, s.verdict, nullif(s.reply, ''), coalesce(s.cut, 0),
       s.failure, s.hint, s."offset", s.seconds, s.attempts, s.cause
FROM {steps_of} WHERE TRUE ON CONFLICT (run, step) DO NOTHING;

INSERT INTO measurements (run, step, name, value, minimum, maximum, unit, verdict, plan, started, station, place_name)
SELECT (SELECT id FROM runs WHERE run = s.run), s.step, m.value ->> 'name',
       CAST(m.value ->> 'value' AS DOUBLE PRECISION), CAST(m.value ->> 'min' AS DOUBLE PRECISION),
       CAST(m.value ->> 'max' AS DOUBLE PRECISION), m.value ->> 'unit', m.value ->> 'verdict',
       (SELECT plan FROM runs WHERE run = s.run), (SELECT started FROM runs WHERE run = s.run),
       (SELECT station FROM runs WHERE run = s.run), (SELECT place_name FROM runs WHERE run = s.run)
FROM {steps_of}, @each(s.measurements) AS m WHERE TRUE ON CONFLICT (run, step, name) DO NOTHING;
