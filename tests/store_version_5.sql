-- What a store of version 5 has besides that of version 4.
ALTER TABLE measurements ADD COLUMN station BIGINT;
ALTER TABLE measurements ADD COLUMN place_name @key;
INSERT INTO schema_version (version) VALUES (5);
UPDATE measurements SET station = 1, place_name = 'left';
