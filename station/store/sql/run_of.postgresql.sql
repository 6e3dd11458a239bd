json_to_recordset($1) AS r(id TEXT, plan TEXT, plan_sha256 TEXT, files JSON, place JSON, station JSON, peer TEXT,
    unit TEXT, variables JSONB, start TIMESTAMPTZ(3), "end" TIMESTAMPTZ(3), seconds DOUBLE PRECISION, verdict TEXT,
    counts BOOLEAN, failed_step TEXT, failure TEXT, cause TEXT, operator TEXT, reference BOOLEAN)
