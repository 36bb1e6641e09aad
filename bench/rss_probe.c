/* rss_probe REPORT PROGRAM [ARGS...]: runs PROGRAM as a child of this small
 * static process and writes "pid N" when it has started, then "maxrss_kib N
 * status S" when it has ended, into the file REPORT.
 *
 * The peak resident set that wait4 reports includes the memory of the process
 * the program was started from up to its exec: started straight from the
 * benchmark it would show the benchmark's own size. Forked from here, it shows
 * the program's (or that of a child it reaped, if larger). */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

int main(int argc, char** argv) {
    if (argc < 3) {
        fputs("usage: rss_probe REPORT PROGRAM [ARGS...]\n", stderr);
        return 2;
    }
    int report = open(argv[1], O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (report < 0)
        return 2;
    pid_t pid = fork();
    if (pid < 0)
        return 2;
    if (pid == 0) {
        execv(argv[2], argv + 2);
        _exit(127);
    }
    dprintf(report, "pid %d\n", (int)pid);
    int status = 0;
    struct rusage usage;
    pid_t got;
    do {
        got = wait4(pid, &status, 0, &usage);
    } while (got < 0 && errno == EINTR);
    if (got != pid)
        return 2;
    dprintf(report, "maxrss_kib %ld status %d\n", usage.ru_maxrss, status);
    return 0;
}
