#pragma once

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace bench {

/// A benchmark that goes wrong has no figure to report: it says why and ends.
[[noreturn]] inline void fail(const char* what)
{
    std::fprintf(stderr, "benchmark: %s\n", what);
    std::exit(1);
}

/// For system calls: adds what the system says.
inline void require(bool succeeded, const char* what)
{
    if (succeeded)
        return;
    std::fprintf(stderr, "benchmark: cannot %s: %s\n", what, std::strerror(errno));
    std::exit(1);
}

} // namespace bench
