-- Readings of a filter in groups. Where the limits were changed meanwhile, the tightest hold.
SELECT {columns}, count(*), count(*) FILTER (WHERE m.verdict = 'failed'), count(m.value), avg(m.value),
       var_pop(m.value) * count(m.value), min(m.value), max(m.value), max(m.minimum), min(m.maximum)
FROM measurements m WHERE {readings} {groups}
