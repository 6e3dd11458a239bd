-- Version 6: values that are addresses, and were added by version 1, get their numbers.
UPDATE pool_rows b SET number = n.number FROM (
    SELECT min(id) AS id, number FROM (
        SELECT id, CAST(CAST('x' || translate(value, ':-', '') AS BIT(48)) AS BIGINT) AS number FROM pool_rows
        WHERE number IS NULL AND length(value) = 17 AND length(translate(value, ':-', '')) = 12
            AND ltrim(upper(value), '0123456789ABCDEF:-') = '') AS found
    GROUP BY number) AS n
    WHERE b.id = n.id AND NOT EXISTS (SELECT 1 FROM pool_rows taken WHERE taken.number = n.number);
