// Linked into the static program only. The default terminate handler prints
// the demangled type of an uncaught exception; its demangler is a quarter of
// the C++ library code a static link carries (about 32 KiB on ARM). Taking
// this definition keeps that archive member out: the only exception the
// program can meet, std::bad_alloc, still ends it through abort() (SIGABRT),
// just without the line on standard error.
#include <cstdlib>
#include <exception>

namespace __cxxabiv1 {
std::terminate_handler __terminate_handler = std::abort;
}  // namespace __cxxabiv1
