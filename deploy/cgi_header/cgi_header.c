/* lighttpd answers 500 to a CGI whose output does not start with a header
 * block, and updater writes none. lighttpd runs this through cgi.assign with
 * the program's path as the one argument: it writes the header and becomes
 * the program (argument count 1, environment and standard input untouched).
 * It runs for every poll, so it does nothing else, and where it can (built
 * with CGI_HEADER_NO_LIBC) it does it with bare system calls: the start-up of
 * even a static C library costs several times the rest. */

static const char header[] = "Content-Type: text/html\r\nCache-Control: no-store\r\n\r\n";
static const char broken[] = "Status: 500 Internal Server Error\r\n\r\n";

#ifdef CGI_HEADER_NO_LIBC

#if defined(__x86_64__)
enum { nr_write = 1, nr_access = 21, nr_execve = 59, nr_exit_group = 231 };
static long sys3(long nr, long a, long b, long c) {
    long result;
    __asm__ volatile("syscall"
                     : "=a"(result)
                     : "a"(nr), "D"(a), "S"(b), "d"(c)
                     : "rcx", "r11", "memory");
    return result;
}
#elif defined(__arm__)
enum { nr_write = 4, nr_access = 33, nr_execve = 11, nr_exit_group = 248 };
static long sys3(long nr, long a, long b, long c) {
    register long r7 __asm__("r7") = nr;
    register long r0 __asm__("r0") = a;
    register long r1 __asm__("r1") = b;
    register long r2 __asm__("r2") = c;
    __asm__ volatile("svc 0" : "+r"(r0) : "r"(r7), "r"(r1), "r"(r2) : "memory");
    return r0;
}
#else
#error "no bare system calls for this architecture: build without CGI_HEADER_NO_LIBC"
#endif

static long put(const char* text, unsigned long size) {
    return sys3(nr_write, 1, (long)text, (long)size);
}
static int executable(const char* path) {
    return sys3(nr_access, (long)path, 1 /* X_OK */, 0) == 0;
}
static void become(char* path, char** envp) {
    char* args[] = {path, 0};
    sys3(nr_execve, (long)path, (long)args, (long)envp);
}

#else

#include <unistd.h>

static long put(const char* text, unsigned long size) {
    return (long)write(STDOUT_FILENO, text, size);
}
static int executable(const char* path) {
    return access(path, X_OK) == 0;
}
static void become(char* path, char** envp) {
    char* const args[] = {path, 0};
    execve(path, args, envp);
}

#endif

static int adapt(int argc, char** argv, char** envp) {
    /* A wrong cgi.assign would otherwise show as an empty page with 200;
       checking before the header is written lets it show as 500 instead. */
    if (argc != 2 || !executable(argv[1])) {
        put(broken, sizeof broken - 1);
        return 1;
    }
    /* 52 bytes into a pipe are written whole or not at all. */
    if (put(header, sizeof header - 1) != (long)(sizeof header - 1)) return 1;
    become(argv[1], envp);
    return 127;
}

#ifdef CGI_HEADER_NO_LIBC

/* The kernel leaves argc, the arguments, a null and the environment on the
   stack; _start passes that address on, with the stack aligned for a call. */
__attribute__((used, noreturn)) void start_c(long* stack) {
    int argc = (int)stack[0];
    char** argv = (char**)(stack + 1);
    sys3(nr_exit_group, adapt(argc, argv, argv + argc + 1), 0, 0);
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
