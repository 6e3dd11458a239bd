-- Retires a value of the pool $1 that no unit has, or puts it back; without a value, all of them.
UPDATE pool_rows SET retired = {retired}
WHERE pool = $1 AND unit IS NULL AND retired <> {retired} AND ($2 = '' OR value = $2)
