-- Retires what the pool $1 has left from $2 to $3, or puts it back. A range begins and another one ends there.
UPDATE ranges SET retired = {retired}
WHERE pool = $1 AND next <= last AND retired <> {retired} AND first >= $2 AND last <= $3 RETURNING last - next + 1
