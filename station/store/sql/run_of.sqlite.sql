(SELECT value ->> 'id' AS id, value ->> 'plan' AS plan, value ->> 'plan_sha256' AS plan_sha256, value -> 'files' AS files,
    value -> 'place' AS place, value -> 'station' AS station, value ->> 'peer' AS peer, value ->> 'unit' AS unit,
    value -> 'variables' AS variables, value ->> 'start' AS start, value ->> 'end' AS "end",
    value ->> 'seconds' AS seconds, value ->> 'verdict' AS verdict, value ->> 'counts' AS counts,
    value ->> 'failed_step' AS failed_step, value ->> 'failure' AS failure, value ->> 'cause' AS cause,
    value ->> 'operator' AS operator, value ->> 'reference' AS reference FROM json_each($1)) AS r
