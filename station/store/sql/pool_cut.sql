-- Splits the range that has both the address {at} and the one before it, so that a range begins at {at}.
INSERT INTO ranges (pool, first, last, next, retired)
    SELECT pool, first, {at} - 1, CASE WHEN next < {at} THEN next ELSE {at} END, retired FROM ranges
    WHERE pool = $1 AND first < {at} AND last >= {at};

UPDATE ranges SET first = {at}, next = CASE WHEN next < {at} THEN {at} ELSE next END
    WHERE pool = $1 AND first < {at} AND last >= {at};
