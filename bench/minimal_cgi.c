/* The least a CGI program can do to send what the header adaptor and updater
 * send together: the header, then "STATUS_BUSY" for a lock-state request or
 * the update log for a progress request. lighttpd runs it in the adaptor's
 * place. */
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static const char header[] = "Content-Type: text/html\r\nCache-Control: no-store\r\n\r\n";
static const char busy[] = "STATUS_BUSY";

int main(void) {
    const char* query = getenv("QUERY_STRING");
    if (write(STDOUT_FILENO, header, sizeof header - 1) < 0)
        return 1;
    if (query != NULL && strstr(query, "status") != NULL) {
        return write(STDOUT_FILENO, busy, sizeof busy - 1) < 0;
    }
    int log = open("/var/log/updater-cgi.log", O_RDONLY);
    if (log < 0)
        return 1;
    char buffer[16384];
    ssize_t got;
    while ((got = read(log, buffer, sizeof buffer)) > 0) {
        if (write(STDOUT_FILENO, buffer, (size_t)got) != got)
            return 1;
    }
    return 0;
}
