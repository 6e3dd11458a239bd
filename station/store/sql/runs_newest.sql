-- The newest runs of a filter, the oldest of them first.
SELECT * FROM ({runs_all} DESC LIMIT {limit}) AS newest ORDER BY started
