-- Settings of the session, as far as the server knows them. The timeouts free the locks of a station that loses its
-- power within a transaction before the other stations give up. random_page_cost is that of an SSD: with the default, a
-- query for one day of a million runs scans all of them. Compiling a query (jit) costs more than it saves: the server
-- takes the arrays of steps for long ones.
SELECT set_config(p.name, v.setting, false) FROM pg_settings p JOIN (VALUES
    ('idle_in_transaction_session_timeout', '5s'), ('client_connection_check_interval', '2s'),
    ('tcp_keepalives_idle', '5'), ('tcp_keepalives_interval', '2'), ('tcp_keepalives_count', '3'),
    ('synchronous_commit', 'on'), ('work_mem', '64MB'), ('client_min_messages', 'warning'), ('random_page_cost', '1.1'),
    ('jit', 'off'), ('TimeZone', 'UTC'), ('DateStyle', 'ISO'), ('bytea_output', 'hex'))
    AS v(name, setting) ON p.name = v.name
