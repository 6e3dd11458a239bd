-- The role, and the tables that it may not write; NULL: it may write all.
SELECT current_user, string_agg(tablename, ', ') FROM pg_tables WHERE schemaname = current_schema() AND NOT
    (SELECT bool_and(has_table_privilege(format('%I.%I', schemaname, tablename), privilege))
     FROM unnest(ARRAY['SELECT', 'INSERT', 'UPDATE', 'DELETE']) AS privilege)
