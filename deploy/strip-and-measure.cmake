# cmake -DSTRIP=<strip> -DINPUT=<program> -DOUTPUT_DIR=<dir> -P strip-and-measure.cmake
# Writes the stripped copy to <dir>/<name>, its size in bytes to
# <dir>/<name>.size, and prints the size.
get_filename_component(name ${INPUT} NAME)
file(MAKE_DIRECTORY ${OUTPUT_DIR})
execute_process(COMMAND ${STRIP} --strip-all -o ${OUTPUT_DIR}/${name} ${INPUT}
                COMMAND_ERROR_IS_FATAL ANY)
file(SIZE ${OUTPUT_DIR}/${name} bytes)
file(WRITE ${OUTPUT_DIR}/${name}.size "${bytes}\n")
math(EXPR tenths_of_kib "(${bytes} * 10 + 512) / 1024")
math(EXPR kib "${tenths_of_kib} / 10")
math(EXPR tenth "${tenths_of_kib} % 10")
message(STATUS "stripped size of ${name}: ${bytes} bytes (${kib}.${tenth} KiB)")
