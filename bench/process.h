#pragma once

#include <sys/types.h>
#include <string>
#include <vector>

// Whole processes for the benchmarks: started with posix_spawn, so that the
// program itself is the child and wait4 reports its own resource usage.

struct spawn_job {
    std::vector<std::string> argv;
    std::vector<std::string> env;  // NAME=VALUE
    std::string input = "/dev/null";
    std::string output = "/dev/null";  // created or truncated
};

// -1 when the program cannot be started.
pid_t spawn(const spawn_job& job);

struct reaped {
    int status = -1;         // as from waitpid
    long maxrss_kib = -1;    // ru_maxrss: the process, or a reaped child of it if larger
    double cpu_seconds = 0;  // user and system time
};
reaped reap(pid_t pid);

// User and system time of this process so far, all threads.
double own_cpu_seconds();

// Peak resident set of a running process ("VmHWM" of /proc/PID/status),
// its own, children not included; -1 when unknown.
long peak_rss_kib(pid_t pid);

// The process's environment as NAME=VALUE strings, plus `extra`.
std::vector<std::string> environment_with(const std::vector<std::string>& extra);
