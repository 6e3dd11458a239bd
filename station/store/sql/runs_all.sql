{run_list} WHERE {runs} {failed} ORDER BY r.started
