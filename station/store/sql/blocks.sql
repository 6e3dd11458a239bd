-- How many blocks of {count} addresses the range r still has. A block must not cross a carry of the sixth byte.
CASE WHEN r.next / 256 = r.last / 256 THEN (r.last - r.next + 1) / {count} ELSE (256 - r.next % 256) / {count}
    + (r.last / 256 - r.next / 256 - 1) * (256 / {count}) + (r.last % 256 + 1) / {count} END
