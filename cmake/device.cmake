# Build settings for the device. Included by the top CMakeLists before any
# target is defined, so that the code generation flags reach every unit.

# Size matters on the device: one function or object per section lets the
# linker drop whatever the program does not reach (MinSizeRel is the device
# build; other build types keep the defaults for debugging).
add_compile_options($<$<CONFIG:MinSizeRel>:-ffunction-sections> $<$<CONFIG:MinSizeRel>:-fdata-sections>)

# Both link variants of the program are built for the device; natively only
# the ordinary one (a static sanitizer build cannot be linked).
if(CMAKE_CROSSCOMPILING)
    set(device_variants_default ON)
else()
    set(device_variants_default OFF)
endif()
option(UPDATER_DEVICE_VARIANTS "Also build the fully static program (updater-static)" ${device_variants_default})

# The dynamic program links the C++ run-time in and shares only the C
# library: a request process then neither maps nor relocates libstdc++, which
# halves its start-up and keeps the POST process under 3 MiB resident, for
# about 16 KiB more on flash. OFF uses the device's libstdc++, for images
# where flash is tighter than RAM (scripts/bench --shared-libstdcxx measures it).
option(UPDATER_BUNDLE_LIBSTDCXX "Link the C++ run-time into the dynamic program" ON)

if(CMAKE_CROSSCOMPILING AND UPDATER_TESTS)
    add_subdirectory(${CMAKE_CURRENT_LIST_DIR}/cross-gtest ${CMAKE_BINARY_DIR}/cross-gtest)
endif()

# Packages near 2 GiB must not meet 32-bit file positions or times on the
# 32-bit device: refuse to configure a tree where the definitions above do not
# give 64-bit off_t and time_t.
include(CheckCXXSourceCompiles)
get_directory_property(large_file_definitions COMPILE_DEFINITIONS)
list(TRANSFORM large_file_definitions PREPEND -D)
set(CMAKE_REQUIRED_DEFINITIONS ${large_file_definitions})
set(CMAKE_REQUIRED_QUIET ON)
check_cxx_source_compiles([=[
#include <sys/stat.h>
#include <sys/types.h>
#include <ctime>
static_assert(sizeof(off_t) == 8, "64-bit file positions");
static_assert(sizeof(time_t) == 8, "64-bit times");
static_assert(sizeof(static_cast<struct stat*>(nullptr)->st_size) == 8, "64-bit file sizes");
int main() { return 0; }
]=] UPDATER_LARGE_FILES)
unset(CMAKE_REQUIRED_DEFINITIONS)
unset(CMAKE_REQUIRED_QUIET)
if(NOT UPDATER_LARGE_FILES)
    message(FATAL_ERROR "off_t, time_t or st_size is not 64 bits wide with: ${large_file_definitions}")
endif()
