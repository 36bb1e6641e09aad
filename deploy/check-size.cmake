# cmake -DFILE=<program> -DLIMIT=<bytes> -P check-size.cmake
# Fails when the stripped device program outgrows its budget.
file(SIZE ${FILE} bytes)
if(bytes GREATER LIMIT)
    message(FATAL_ERROR "${FILE}: ${bytes} bytes stripped, budget ${LIMIT}")
endif()
message(STATUS "${FILE}: ${bytes} of ${LIMIT} bytes")
