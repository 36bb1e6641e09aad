/* lighttpd answers 500 to a CGI whose output does not start with a header
 * block, and updater writes none. lighttpd runs this through cgi.assign with
 * the program's path as the one argument: it writes the header and becomes
 * the program (argument count 1, environment and standard input untouched).
 *
 * It is also the guard that lets one update or reboot exist at a time on the
 * device, whatever its clients do (the program's own lock is taken only when
 * a poll sees lighttpd's upload file, and a POST never tests it). The guard
 * file holds four locks. A POST or a reboot request takes "update"
 * exclusively and "tree" on a description of its own, or gets the busy answer
 * (503, the program's own text) without the program; then it waits until no
 * other request's program runs ("requests" exclusively), and runs the program
 * as its child. The child inherits "tree" as descriptor 3, and so do the
 * commands it runs, the installer included: the kernel keeps that lock until
 * the last of them ends, whoever is killed. This process keeps "update" until
 * then, clears what a stopped update left, and after a success or a reboot
 * request until the device goes down. Every other request runs its program
 * with "requests" shared; while "update" or "tree" is held it gets its answer
 * from here instead: STATUS_BUSY for the lock state, the update log as it
 * stands for progress, the busy answer for a reset. Progress requests also
 * take "progress turn" in turn, so that no two of them race for the
 * program's lock.
 *
 * It runs for every poll, so it does little else, and where it can (built
 * with CGI_HEADER_NO_LIBC) it does it with bare system calls: the start-up of
 * even a static C library costs several times the rest. */

static const char header[] = "Content-Type: text/html\r\nCache-Control: no-store\r\n\r\n";
static const char broken[] = "Status: 500 Internal Server Error\r\n\r\n";
static const char busy[] =
    "Status: 503 Service Unavailable\r\nRetry-After: 30\r\n"
    "Content-Type: text/html\r\nCache-Control: no-store\r\n\r\n"
    "update already in progress, please retry later.";
static const char status_busy[] =
    "Content-Type: text/html\r\nCache-Control: no-store\r\n\r\nSTATUS_BUSY";

/* /var/log is the program's own state directory: writable by lighttpd's
   user, in RAM, empty after every boot. The locks are open file description
   locks: a poll can test one without taking it, and they end with the last
   descriptor, whoever holds it, also at a SIGKILL. */
static const char guard_path[] = "/var/log/updater-guard";
static const char log_path[] = "/var/log/updater-cgi.log";
static const char status_path[] = "/var/log/updater-cgi.status";
static char reset_method[] = "REQUEST_METHOD=GET";
/* A SIGTERM ends the program with 0 too: only this entry tells a success. */
static const char success_entry[] = "firmware successfully loaded";
/* sudo closes descriptors from 4 on (closefrom=4 in the device's sudoers). */
enum { tree_fd = 3 };

/* The program's reboot (after a success or for a reboot request) returns at
   once, and the device goes down seconds later (lighttpd is stopped then,
   and this with it). The guard stays held that long, but no longer than this
   if the reboot never comes. */
enum { hold_after_success_ms = 120000 };
/* What a POST waits at most for programs of requests begun before it: a
   progress request that ends in an error clears the state files 1.5 s on. */
enum { wait_for_requests_ms = 10000, wait_step_ms = 10 };

enum { o_rdonly = 0, o_rdwr = 2, o_creat = 0100, o_cloexec = 02000000 };
enum {
    f_ofd_getlk = 36,
    f_ofd_setlk = 37,
    f_ofd_setlkw = 38,
    f_rdlck = 0,
    f_wrlck = 1,
    f_unlck = 2
};
/* The byte each lock covers; a request tests "update" and "tree" at once. */
enum { update_lock = 0, tree_lock = 1, requests_lock = 2, progress_turn = 3 };
struct guard_lock {
    short type, whence;
    long long start, length;
    int pid;
};
/* SIGHUP, SIGINT, SIGQUIT, SIGTERM: what would end an update's waiting
   parent before its child; SIGKILL still does, and the tree's lock stays. */
static const unsigned long long stop_signals = 1u << 0 | 1u << 1 | 1u << 2 | 1u << 14;

#ifdef CGI_HEADER_NO_LIBC

#if defined(__x86_64__)
enum {
    nr_read = 0,
    nr_write = 1,
    nr_open = 2,
    nr_close = 3,
    nr_sigprocmask = 14,
    nr_nanosleep = 35,
    nr_access = 21,
    nr_dup2 = 33,
    nr_fork = 57,
    nr_execve = 59,
    nr_wait4 = 61,
    nr_fcntl = 72,
    nr_sigpending = 127,
    nr_exit_group = 231
};
static long sys(long nr, long a, long b, long c, long d) {
    register long r10 __asm__("r10") = d;
    long result;
    __asm__ volatile("syscall"
                     : "=a"(result)
                     : "a"(nr), "D"(a), "S"(b), "d"(c), "r"(r10)
                     : "rcx", "r11", "memory");
    return result;
}
#elif defined(__arm__)
enum {
    nr_read = 3,
    nr_write = 4,
    nr_open = 5,
    nr_close = 6,
    nr_fork = 2,
    nr_execve = 11,
    nr_access = 33,
    nr_dup2 = 63,
    nr_wait4 = 114,
    nr_nanosleep = 162,
    nr_sigprocmask = 175,
    nr_sigpending = 176,
    nr_fcntl = 221 /* fcntl64 */,
    nr_exit_group = 248
};
static long sys(long nr, long a, long b, long c, long d) {
    register long r7 __asm__("r7") = nr;
    register long r0 __asm__("r0") = a;
    register long r1 __asm__("r1") = b;
    register long r2 __asm__("r2") = c;
    register long r3 __asm__("r3") = d;
    __asm__ volatile("svc 0" : "+r"(r0) : "r"(r7), "r"(r1), "r"(r2), "r"(r3) : "memory");
    return r0;
}
#else
#error "no bare system calls for this architecture: build without CGI_HEADER_NO_LIBC"
#endif

static long put(const char* text, unsigned long size) {
    return sys(nr_write, 1, (long)text, (long)size, 0);
}
static int executable(const char* path) {
    return sys(nr_access, (long)path, 1 /* X_OK */, 0, 0) == 0;
}
static int exists(const char* path) {
    return sys(nr_access, (long)path, 0 /* F_OK */, 0, 0) == 0;
}
static void move_file(int from, int to) {
    sys(nr_dup2, from, to, 0, 0);
}
static void become(char* path, char** envp) {
    char* args[] = {path, 0};
    sys(nr_execve, (long)path, (long)args, (long)envp, 0);
}
static int open_file(const char* path, int flags) {
    long fd = sys(nr_open, (long)path, flags, 0600, 0);
    return fd < 0 ? -1 : (int)fd;
}
static long read_file(int fd, char* buffer, unsigned long size) {
    return sys(nr_read, fd, (long)buffer, (long)size, 0);
}
static void close_file(int fd) {
    sys(nr_close, fd, 0, 0, 0);
}
static int lock_file(int fd, int command, struct guard_lock* lock) {
    long result = sys(nr_fcntl, fd, command, (long)lock, 0);
    return result == 0 ? 1 : result == -11 /* EAGAIN */ || result == -13 /* EACCES */ ? 0 : -1;
}
static int start_child(void) {
    return (int)sys(nr_fork, 0, 0, 0, 0);
}
static int wait_child(int child) {
    int status = 0;
    return sys(nr_wait4, child, (long)&status, 0, 0) == child ? status : 1 << 8;
}
typedef unsigned long long signal_set;
static void block_stop_signals(signal_set* old) {
    signal_set set = stop_signals;
    sys(nr_sigprocmask, 0 /* SIG_BLOCK */, (long)&set, (long)old, sizeof set);
}
static void set_signal_mask(const signal_set* mask) {
    sys(nr_sigprocmask, 2 /* SIG_SETMASK */, (long)mask, 0, sizeof *mask);
}
static int signals_pending(void) {
    unsigned long long set = 0;
    sys(nr_sigpending, (long)&set, sizeof set, 0, 0);
    return (set & stop_signals) != 0;
}
static void pause_ms(long ms) {
    long time[2] = {ms / 1000, ms % 1000 * 1000000};
    sys(nr_nanosleep, (long)time, 0, 0, 0);
}
static void leave(int value) {
    sys(nr_exit_group, value, 0, 0, 0);
}

#else

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static long put(const char* text, unsigned long size) {
    return (long)write(STDOUT_FILENO, text, size);
}
static int executable(const char* path) {
    return access(path, X_OK) == 0;
}
static int exists(const char* path) {
    return access(path, F_OK) == 0;
}
static void move_file(int from, int to) {
    dup2(from, to);
}
static void become(char* path, char** envp) {
    char* const args[] = {path, 0};
    execve(path, args, envp);
}
static int open_file(const char* path, int flags) {
    return open(path, flags, 0600);
}
static long read_file(int fd, char* buffer, unsigned long size) {
    return (long)read(fd, buffer, size);
}
static void close_file(int fd) {
    close(fd);
}
static int lock_file(int fd, int command, struct guard_lock* lock) {
    struct flock native = {0};
    native.l_type = lock->type;
    native.l_whence = SEEK_SET;
    native.l_start = lock->start;
    native.l_len = lock->length;
    if (fcntl(fd, command, &native) != 0) return errno == EAGAIN || errno == EACCES ? 0 : -1;
    lock->type = native.l_type;
    return 1;
}
static int start_child(void) {
    return (int)fork();
}
static int wait_child(int child) {
    int status = 0;
    return waitpid(child, &status, 0) == child ? status : 1 << 8;
}
typedef sigset_t signal_set;
static void block_stop_signals(signal_set* old) {
    sigset_t set;
    sigemptyset(&set);
    for (int signal = 1; signal <= 32; ++signal)
        if (stop_signals >> (signal - 1) & 1) sigaddset(&set, signal);
    sigprocmask(SIG_BLOCK, &set, old);
}
static void set_signal_mask(const signal_set* mask) {
    sigprocmask(SIG_SETMASK, mask, 0);
}
static int signals_pending(void) {
    sigset_t native;
    sigemptyset(&native);
    sigpending(&native);
    return sigismember(&native, SIGHUP) || sigismember(&native, SIGINT) ||
           sigismember(&native, SIGQUIT) || sigismember(&native, SIGTERM);
}
static void pause_ms(long ms) {
    struct timespec time = {ms / 1000, ms % 1000 * 1000000};
    nanosleep(&time, 0);
}
static void leave(int value) {
    _exit(value);
}

#endif

/* ---- the request, classified as the program does ------------------------- */

enum request { other, update, reset, reboot, lock_state, progress };

static const char* variable(char** envp, const char* name) {
    for (; *envp; ++envp) {
        const char* entry = *envp;
        const char* wanted = name;
        while (*wanted && *entry == *wanted)
            ++entry, ++wanted;
        if (!*wanted && *entry == '=') return entry + 1;
    }
    return 0;
}
static int starts_with(const char* text, const char* prefix) {
    while (*prefix && *text == *prefix)
        ++text, ++prefix;
    return !*prefix;
}
static int contains(const char* text, const char* word) {
    for (; *text; ++text)
        if (starts_with(text, word)) return 1;
    return 0;
}
static enum request classify(char** envp) {
    const char* method = variable(envp, "REQUEST_METHOD");
    if (!method) return other;
    if (starts_with(method, "GET")) {
        const char* query = variable(envp, "QUERY_STRING");
        if (!query) return reset;
        if (contains(query, "reboot")) return reboot;
        return contains(query, "status") ? lock_state : progress;
    }
    return starts_with(method, "POST") ? update : other;
}

/* ---- the guard ------------------------------------------------------------ */

/* 1 taken (for f_ofd_getlk: all free), 0 held by another, -1 no such lock
   here (a kernel without them): the request then goes on unguarded. */
static int guard(int fd, int command, short type, int first, int count) {
    struct guard_lock lock = {type, 0, first, count, 0};
    int result = lock_file(fd, command, &lock);
    return command == f_ofd_getlk && result == 1 ? lock.type == f_unlck : result;
}

/* Answers a request while an update runs; the program's log as it stands
   for a progress request. */
static int answer_busy(enum request request) {
    if (request == lock_state) return put(status_busy, sizeof status_busy - 1) < 0;
    if (request != progress) return put(busy, sizeof busy - 1) < 0;
    if (put(header, sizeof header - 1) != (long)(sizeof header - 1)) return 1;
    int log = open_file(log_path, o_rdonly | o_cloexec);
    char buffer[4096];
    long size;
    while (log >= 0 && (size = read_file(log, buffer, sizeof buffer)) > 0)
        if (put(buffer, (unsigned long)size) != size) return 1;
    return 0;
}

/* The success entry, within the log's last 64 bytes. */
static int log_says_success(void) {
    int log = open_file(log_path, o_rdonly | o_cloexec);
    char buffer[4096];
    unsigned long matched = 0, after = 64;
    long size;
    while (log >= 0 && (size = read_file(log, buffer, sizeof buffer)) > 0)
        for (long i = 0; i < size; ++i, ++after) {
            matched =
                buffer[i] == success_entry[matched] ? matched + 1 : buffer[i] == success_entry[0];
            if (matched == sizeof success_entry - 1) after = 0, matched = 0;
        }
    if (log >= 0) close_file(log);
    return after < 64;
}

/* The child gets the update's tree lock as descriptor 3 (tree < 0: none). */
static int run_program(char* path, char** envp, const signal_set* mask, int tree) {
    int child = start_child();
    if (child == 0) {
        if (tree >= 0 && tree != tree_fd) move_file(tree, tree_fd);
        set_signal_mask(mask);
        become(path, envp);
        leave(127);
    }
    return child < 0 ? 1 << 8 : wait_child(child);
}

/* The update or reboot runs in a child; this process waits with the guard,
   and its exit value is the program's. It keeps the answer open until it
   ends: lighttpd sends SIGTERM to a CGI still running when its answer is
   complete. Then it waits for the last process holding the tree lock (an
   installer the killed program left, say). A stopped or killed update left
   its lock and state behind, which every lock-state request would answer
   busy: the program's own reset (a GET without a query) clears them, its log
   saved, before the guard goes. A success or a reboot request keeps the guard
   in a process of its own until the device goes down; a stop signal
   meanwhile (the device going down) lets it go. */
static int run_guarded(int guard_fd, int tree, enum request request, char* path, char** envp) {
    signal_set mask;
    block_stop_signals(&mask);
    int status = run_program(path, envp, &mask, tree);
    close_file(tree);
    int keep = request == reboot || (status == 0 && log_says_success());
    guard(guard_fd, f_ofd_setlkw, f_wrlck, tree_lock, 1);
    if (!keep && exists(status_path)) {
        char* reset_environment[] = {reset_method, 0};
        run_program(path, reset_environment, &mask, -1);
    }
    if (keep && !signals_pending() && start_child() == 0) {
        for (int fd = 0; fd <= 2; ++fd)
            close_file(fd);
        set_signal_mask(&mask);
        pause_ms(hold_after_success_ms);
    }
    close_file(guard_fd);
    return (status & 0x7f) ? 128 + (status & 0x7f) : status >> 8 & 0xff;
}

static int adapt(int argc, char** argv, char** envp) {
    /* A wrong cgi.assign would otherwise show as an empty page with 200;
       checking before the header is written lets it show as 500 instead. */
    if (argc != 2 || !executable(argv[1])) {
        put(broken, sizeof broken - 1);
        return 1;
    }
    enum request request = classify(envp);
    int exclusive = request == update || request == reboot;
    /* Opened first, the tree's description is descriptor 3 already. A guard
       file that cannot be opened (a broken /var/log) leaves the request
       unguarded, as the program alone would run it. */
    int tree = exclusive ? open_file(guard_path, o_rdwr | o_creat) : -1;
    int fd = request == other ? -1
                              : open_file(guard_path, exclusive ? o_rdwr | o_creat | o_cloexec
                                                      : request == progress ? o_rdwr | o_creat
                                                                            : o_rdonly | o_creat);
    int guarded = 0;
    if (fd >= 0 && tree >= 0) {
        guarded = guard(fd, f_ofd_setlk, f_wrlck, update_lock, 1);
        if (guarded > 0) guarded = guard(tree, f_ofd_setlk, f_wrlck, tree_lock, 1);
        if (guarded == 0) return answer_busy(request);
        for (int waited = 0; guarded > 0 && waited < wait_for_requests_ms; waited += wait_step_ms) {
            if (guard(fd, f_ofd_setlk, f_wrlck, requests_lock, 1) != 0) break;
            pause_ms(wait_step_ms);
        }
    } else if (fd >= 0 && !exclusive) {
        /* The shared lock goes with the descriptor into the program. */
        if (guard(fd, f_ofd_getlk, f_wrlck, update_lock, 2) == 0 ||
            guard(fd, f_ofd_setlk, f_rdlck, requests_lock, 1) == 0)
            return answer_busy(request);
        /* Two polls that see an upload file together both try the program's
           lock, and the loser's error ending clears the winner's lock, state
           and saved log: progress requests take turns, each a few ms. */
        if (request == progress) guard(fd, f_ofd_setlkw, f_wrlck, progress_turn, 1);
    }
    /* 52 bytes into a pipe are written whole or not at all. */
    if (put(header, sizeof header - 1) != (long)(sizeof header - 1)) return 1;
    if (guarded > 0) return run_guarded(fd, tree, request, argv[1], envp);
    become(argv[1], envp);
    return 127;
}

#ifdef CGI_HEADER_NO_LIBC

/* The kernel leaves argc, the arguments, a null and the environment on the
   stack; _start passes that address on, with the stack aligned for a call. */
__attribute__((used, noreturn)) void start_c(long* stack) {
    int argc = (int)stack[0];
    char** argv = (char**)(stack + 1);
    leave(adapt(argc, argv, argv + argc + 1));
    for (;;) {
    }
}

#if defined(__x86_64__)
__asm__(
    ".text\n.globl _start\n.type _start,@function\n_start:\n"
    "  mov %rsp, %rdi\n  and $-16, %rsp\n  call start_c\n  hlt\n");
#elif defined(__thumb__)
__asm__(
    ".text\n.syntax unified\n.thumb\n.globl _start\n.thumb_func\n.type _start,%function\n"
    "_start:\n  mov r0, sp\n  mov r1, r0\n  bic r1, r1, #7\n  mov sp, r1\n  bl start_c\n");
#else
__asm__(
    ".text\n.syntax unified\n.arm\n.globl _start\n.type _start,%function\n"
    "_start:\n  mov r0, sp\n  bic sp, sp, #7\n  bl start_c\n");
#endif

#else

extern char** environ;
int main(int argc, char** argv) {
    return adapt(argc, argv, environ);
}

#endif
