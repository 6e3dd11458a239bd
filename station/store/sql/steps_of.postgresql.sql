json_to_recordset($1) AS s(run TEXT, step BIGINT, title TEXT, verdict TEXT, reply TEXT, cut BIGINT, failure TEXT,
    hint TEXT, "offset" DOUBLE PRECISION, seconds DOUBLE PRECISION, attempts BIGINT, cause TEXT, measurements JSON)
