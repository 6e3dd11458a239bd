-- Version 6: no address is in two ranges, or in a range and among the values of a pool. PostgreSQL has a constraint for
-- ranges since version 2. Here triggers note what overlaps, and the foreign key, which no pool satisfies, refuses to
-- commit a note. Within a transaction ranges may overlap, because two statements split one.
--
-- Values that are addresses, and were added by version 1, get their numbers.
UPDATE OR IGNORE pool_rows SET number = (
    WITH RECURSIVE hex(rest, number) AS (
        SELECT upper(replace(replace(value, ':', ''), '-', '')), 0 UNION ALL
        SELECT substr(rest, 2), 16 * number + instr('0123456789ABCDEF', substr(rest, 1, 1)) - 1
        FROM hex WHERE rest > '')
    SELECT number FROM hex WHERE rest = '')
    WHERE number IS NULL AND length(value) = 17 AND length(replace(replace(value, ':', ''), '-', '')) = 12
        AND ltrim(upper(value), '0123456789ABCDEF:-') = '';
CREATE TABLE overlaps (
    range BIGINT,                   -- two ranges; NULL: a value within a range
    other BIGINT,
    never BIGINT NOT NULL DEFAULT 0 REFERENCES pools(id) DEFERRABLE INITIALLY DEFERRED
);
CREATE INDEX ranges_by_first ON ranges (first);
-- A range's overlaps. Of the ranges that begin before it, only the nearest can reach it, as they do not overlap either.
-- A part of a range has the same values as the whole, which version 5 may have accepted.
CREATE VIEW overlapping AS
    SELECT r.id AS range, o.id AS other FROM ranges r JOIN ranges o ON o.first BETWEEN r.first AND r.last
    WHERE o.id <> r.id
    UNION ALL
    SELECT r.id, o.id FROM ranges r JOIN ranges o
        ON o.id = (SELECT id FROM ranges WHERE first < r.first ORDER BY first DESC LIMIT 1) AND o.last >= r.first
    UNION ALL
    SELECT r.id, NULL FROM ranges r JOIN pool_rows b ON b.number BETWEEN r.next AND r.last
    WHERE NOT EXISTS (SELECT 1 FROM ranges o WHERE o.id <> r.id AND b.number BETWEEN o.first AND o.last);
CREATE TRIGGER ranges_made AFTER INSERT ON ranges BEGIN
    INSERT INTO overlaps (range, other) SELECT range, other FROM overlapping WHERE range = NEW.id; END;
CREATE TRIGGER ranges_extended AFTER UPDATE OF first, last ON ranges
    WHEN NEW.first < OLD.first OR NEW.last > OLD.last BEGIN
    INSERT INTO overlaps (range, other) SELECT range, other FROM overlapping WHERE range = NEW.id; END;
CREATE TRIGGER ranges_reduced AFTER UPDATE OF first, last ON ranges
    WHEN NEW.first > OLD.first OR NEW.last < OLD.last BEGIN
    DELETE FROM overlaps WHERE NEW.id IN (range, other) AND NOT EXISTS (SELECT 1 FROM ranges o
        WHERE o.id = range + other - NEW.id AND o.first <= NEW.last AND o.last >= NEW.first); END;
-- What a unit takes of a range is in the range's pool.
CREATE TRIGGER pool_rows_made AFTER INSERT ON pool_rows WHEN NEW.number IS NOT NULL BEGIN
    INSERT INTO overlaps (range) SELECT NULL FROM ranges WHERE pool <> NEW.pool AND last >= NEW.number
        AND id = (SELECT id FROM ranges WHERE first <= NEW.number ORDER BY first DESC LIMIT 1); END;
CREATE TRIGGER pool_rows_changed AFTER UPDATE OF number ON pool_rows WHEN NEW.number IS NOT NULL BEGIN
    INSERT INTO overlaps (range) SELECT NULL FROM ranges WHERE pool <> NEW.pool AND last >= NEW.number
        AND id = (SELECT id FROM ranges WHERE first <= NEW.number ORDER BY first DESC LIMIT 1); END;
