// Linked into the static program only, with -Wl,--wrap=__cxa_demangle. The
// only user of the demangler there is the terminate handler, which names the
// type of an uncaught exception (std::bad_alloc is the only one the program
// can meet); the demangler is about 30 KiB of ARM code. Declining to
// demangle makes the handler print the raw type name ("St9bad_alloc")
// instead; it still ends the program through abort().
#include <cstddef>

// NOLINTNEXTLINE(bugprone-reserved-identifier): name given by the linker's --wrap
extern "C" char* __wrap___cxa_demangle(const char*, char*, size_t*, int* status) {
    if (status != nullptr) *status = -2;  // "not a mangled name": print it as it is
    return nullptr;
}
