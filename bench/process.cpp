#include "process.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <fstream>

extern char** environ;

namespace {
std::vector<char*> pointers(const std::vector<std::string>& strings) {
    std::vector<char*> result;
    for (const std::string& s : strings)
        result.push_back(const_cast<char*>(s.c_str()));
    result.push_back(nullptr);
    return result;
}

double cpu_seconds_of(const rusage& usage) {
    auto seconds = [](const timeval& t) {
        return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}
}  // namespace

pid_t spawn(const spawn_job& job) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, job.input.c_str(), O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, job.output.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    std::vector<char*> argv = pointers(job.argv);
    std::vector<char*> env = pointers(job.env);
    pid_t pid = -1;
    int failed = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), env.data());
    posix_spawn_file_actions_destroy(&actions);
    return failed == 0 ? pid : -1;
}

reaped reap(pid_t pid) {
    reaped result;
    rusage usage{};
    pid_t got;
    do {
        got = ::wait4(pid, &result.status, 0, &usage);
    } while (got < 0 && errno == EINTR);
    if (got == pid) {
        result.maxrss_kib = usage.ru_maxrss;
        result.cpu_seconds = cpu_seconds_of(usage);
    }
    return result;
}

double own_cpu_seconds() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return cpu_seconds_of(usage);
}

long peak_rss_kib(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string word;
    while (status >> word) {
        if (word == "VmHWM:") {
            long kib = -1;
            status >> kib;
            return kib;
        }
    }
    return -1;
}

std::vector<std::string> environment_with(const std::vector<std::string>& extra) {
    std::vector<std::string> result;
    for (char** entry = environ; *entry != nullptr; ++entry)
        result.emplace_back(*entry);
    result.insert(result.end(), extra.begin(), extra.end());
    return result;
}
