# The private device root the tests run in; see README.md beside this file.
#
#   add_device_root_test(NAME n TARGET t [UID 1000] [READONLY_LOG] [NO_PERSISTENT]
#                        [ARGS ...] [ENV NAME=VALUE ...] [BIND_RO path ...])
#       runs the gtest executable t itself inside a fresh device root.
#   add_blackbox_test(NAME n TARGET t [ARGS ...])
#       runs t on the host; t uses class device_root (linked here).
#   rig_guard_directory()
#       puts every test of the calling directory under the host check below.
#
# Every test added through these runs between host_snapshot_save and
# host_snapshot_compare, which prove the machine's own /var/log, /tmp, /var/tmp
# and /tolven were left alone.

find_program(BWRAP_EXECUTABLE bwrap REQUIRED)
find_package(Threads REQUIRED)

set(DEVICE_ROOT_LAUNCHER ${CMAKE_CURRENT_LIST_DIR}/device-root)
set(DEVICE_ROOT_BASE ${CMAKE_BINARY_DIR}/device-roots)
# Sanitizer and gtest settings survive the launcher's cleared environment.
set(DEVICE_ROOT_PASS_ENV ASAN_OPTIONS UBSAN_OPTIONS LSAN_OPTIONS TSAN_OPTIONS
    ASAN_SYMBOLIZER_PATH QEMU_LD_PREFIX GTEST_COLOR GTEST_FILTER GTEST_BRIEF)

# The emulator goes into a C string; '|' separates its words there.
string(REPLACE ";" "|" _rig_emulator "${CMAKE_CROSSCOMPILING_EMULATOR}")

add_library(device_root_rig STATIC ${CMAKE_CURRENT_LIST_DIR}/device_root.cpp)
target_include_directories(device_root_rig PUBLIC ${CMAKE_CURRENT_LIST_DIR})
target_link_libraries(device_root_rig PUBLIC GTest::gtest Threads::Threads)
target_compile_definitions(device_root_rig PRIVATE
    DEVICE_ROOT_LAUNCHER="${DEVICE_ROOT_LAUNCHER}"
    DEVICE_ROOT_BASE="${DEVICE_ROOT_BASE}"
    DEVICE_ROOT_BUILD_DIR="${CMAKE_BINARY_DIR}"
    DEVICE_ROOT_UPDATER="$<TARGET_FILE:updater>"
    DEVICE_ROOT_EMULATOR="${_rig_emulator}")
# Black-box tests run the program, so it must be built before them.
add_dependencies(device_root_rig updater)

set(_rig_snapshot ${CMAKE_BINARY_DIR}/host-snapshot.txt)
add_test(NAME host_snapshot_save
    COMMAND ${CMAKE_CURRENT_LIST_DIR}/host-snapshot save ${_rig_snapshot})
add_test(NAME host_snapshot_compare
    COMMAND ${CMAKE_CURRENT_LIST_DIR}/host-snapshot compare ${_rig_snapshot})
set_tests_properties(host_snapshot_save PROPERTIES FIXTURES_SETUP host_untouched)
set_tests_properties(host_snapshot_compare PROPERTIES FIXTURES_CLEANUP host_untouched)

function(add_device_root_test)
    cmake_parse_arguments(PARSE_ARGV 0 arg "READONLY_LOG;NO_PERSISTENT" "NAME;TARGET;UID"
        "ARGS;ENV;BIND_RO")
    if(NOT arg_NAME OR NOT arg_TARGET)
        message(FATAL_ERROR "add_device_root_test needs NAME and TARGET")
    endif()
    set(cmd ${DEVICE_ROOT_LAUNCHER} --root ${DEVICE_ROOT_BASE}/ctest-${arg_NAME} --fresh)
    if(arg_UID)
        list(APPEND cmd --uid ${arg_UID})
    endif()
    if(arg_READONLY_LOG)
        list(APPEND cmd --readonly-log)
    endif()
    if(arg_NO_PERSISTENT)
        list(APPEND cmd --no-persistent)
    endif()
    foreach(var IN LISTS DEVICE_ROOT_PASS_ENV)
        list(APPEND cmd --pass-env ${var})
    endforeach()
    foreach(pair IN LISTS arg_ENV)
        list(APPEND cmd --env ${pair})
    endforeach()
    foreach(path ${CMAKE_BINARY_DIR} ${arg_BIND_RO})
        list(APPEND cmd --bind-ro ${path})
    endforeach()
    # Not a target as COMMAND, so CMake adds no emulator by itself: add it
    # inside the root, where the program has to run.
    add_test(NAME ${arg_NAME}
        COMMAND ${cmd} -- ${CMAKE_CROSSCOMPILING_EMULATOR} $<TARGET_FILE:${arg_TARGET}>
                ${arg_ARGS})
    set_tests_properties(${arg_NAME} PROPERTIES FIXTURES_REQUIRED host_untouched)
endfunction()

function(add_blackbox_test)
    cmake_parse_arguments(PARSE_ARGV 0 arg "" "NAME;TARGET" "ARGS")
    if(NOT arg_NAME OR NOT arg_TARGET)
        message(FATAL_ERROR "add_blackbox_test needs NAME and TARGET")
    endif()
    target_link_libraries(${arg_TARGET} PRIVATE device_root_rig)
    # A target as COMMAND: CMake puts the emulator in front when cross compiling.
    add_test(NAME ${arg_NAME} COMMAND ${arg_TARGET} ${arg_ARGS})
    set_tests_properties(${arg_NAME} PROPERTIES FIXTURES_REQUIRED host_untouched)
endfunction()

function(_rig_guard_tests_of_directory)
    get_property(tests DIRECTORY PROPERTY TESTS)
    list(REMOVE_ITEM tests host_snapshot_save host_snapshot_compare)
    foreach(test IN LISTS tests)
        get_test_property(${test} FIXTURES_REQUIRED fixtures)
        if(NOT fixtures)
            set(fixtures "")
        endif()
        if(NOT "host_untouched" IN_LIST fixtures)
            list(APPEND fixtures host_untouched)
            set_tests_properties(${test} PROPERTIES FIXTURES_REQUIRED "${fixtures}")
        endif()
    endforeach()
endfunction()

# set_tests_properties reaches only tests of the current directory, hence one
# deferred call per directory rather than one walk over the tree.
macro(rig_guard_directory)
    cmake_language(DEFER CALL _rig_guard_tests_of_directory)
endmacro()
