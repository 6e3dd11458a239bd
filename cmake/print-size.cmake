file(SIZE ${FILE} bytes)
message(STATUS "${FILE}: ${bytes} bytes")
