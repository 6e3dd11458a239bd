-- What PostgreSQL has had since version 2, and a table of SQLite cannot be given once it is there.
CREATE TRIGGER steps_verdict BEFORE INSERT ON steps WHEN NEW.verdict NOT IN ('passed', 'failed', 'not run') BEGIN
    SELECT RAISE(ABORT, 'steps_verdict'); END;
