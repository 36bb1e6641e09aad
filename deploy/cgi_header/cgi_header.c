/* lighttpd answers 500 to a CGI whose output does not start with a header
 * block, and updater writes none. lighttpd runs this through cgi.assign with
 * the program's path as the one argument: it writes the header and becomes
 * the program (argument count 1, environment and standard input untouched).
 * It runs for every poll, so it does nothing else. */
#include <unistd.h>

static const char header[] = "Content-Type: text/html\r\nCache-Control: no-store\r\n\r\n";
static const char broken[] = "Status: 500 Internal Server Error\r\n\r\n";

int main(int argc, char** argv) {
    /* A wrong cgi.assign would otherwise show as an empty page with 200;
       checking before the header is written lets it show as 500 instead. */
    if (argc != 2 || access(argv[1], X_OK) != 0) {
        ssize_t ignored = write(STDOUT_FILENO, broken, sizeof broken - 1);
        (void)ignored;
        return 1;
    }
    /* 52 bytes into a pipe are written whole or not at all. */
    if (write(STDOUT_FILENO, header, sizeof header - 1) != (ssize_t)(sizeof header - 1))
        return 1;
    char* const args[] = {argv[1], 0};
    execv(argv[1], args);
    return 127;
}
