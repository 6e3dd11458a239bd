-- Whose fault it was that the run r did not pass. Older versions did not record that.
coalesce(r.cause, CASE r.verdict WHEN 'interrupted' THEN 'station' ELSE 'unit' END)
