-- All about a run.
{run_list} WHERE r.id = $1;

SELECT step, title, verdict, started_after, seconds, attempts, failure, reply, cut, hint FROM steps WHERE run = $1
ORDER BY step;

SELECT step, name, value, unit, minimum, maximum, verdict FROM measurements WHERE run = $1 ORDER BY step, name;

{files} WHERE r.id = $1 ORDER BY f.step, f.name;
