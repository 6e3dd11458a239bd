(SELECT value ->> 'run' AS run, value ->> 'step' AS step, value ->> 'title' AS title, value ->> 'verdict' AS verdict,
    value ->> 'reply' AS reply, value ->> 'cut' AS cut, value ->> 'failure' AS failure, value ->> 'hint' AS hint,
    value ->> 'offset' AS "offset", value ->> 'seconds' AS seconds, value ->> 'attempts' AS attempts,
    value ->> 'cause' AS cause, value -> 'measurements' AS measurements FROM json_each($1)) AS s
