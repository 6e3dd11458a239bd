INSERT INTO units (serial, product, first_seen, last_seen) VALUES ($1, $2, $3, $3) ON CONFLICT (serial) DO UPDATE SET
    product = coalesce(units.product, excluded.product),
    first_seen = CASE WHEN excluded.first_seen < units.first_seen THEN excluded.first_seen ELSE units.first_seen END,
    last_seen = CASE WHEN excluded.last_seen > units.last_seen THEN excluded.last_seen ELSE units.last_seen END
