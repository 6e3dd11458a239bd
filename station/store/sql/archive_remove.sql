-- Removes the run unless its verdict has changed since it was read: a late record has then arrived.
DELETE FROM measurements WHERE run = (SELECT id FROM runs WHERE run = $1 AND verdict = $2);
DELETE FROM steps WHERE run = (SELECT id FROM runs WHERE run = $1 AND verdict = $2);
DELETE FROM runs WHERE run = $1 AND verdict = $2;
