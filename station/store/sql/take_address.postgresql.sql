upper(regexp_replace(lpad(to_hex(number), 12, '0'), '(..)(?=.)', '\1:', 'g'))
