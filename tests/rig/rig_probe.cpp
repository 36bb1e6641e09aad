// A stand-in for the updater in the rig's own tests: a C++ program that
// returns, prints, signals and shells out on command, as the updater does.
#include <unistd.h>
#include <csignal>

#include <cstdio>
#include <cstdlib>
#include <cstring>

extern char** environ;

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    const char* what = argv[1];
    if (std::strcmp(what, "exit") == 0 && argc == 3) return std::atoi(argv[2]);
    if (std::strcmp(what, "cat") == 0) {
        char buf[8192];
        size_t n;
        while ((n = std::fread(buf, 1, sizeof buf, stdin)) > 0)
            std::fwrite(buf, 1, n, stdout);
        return 0;
    }
    if (std::strcmp(what, "uid") == 0) {
        std::printf("%u\n", static_cast<unsigned>(getuid()));
        return 0;
    }
    if (std::strcmp(what, "raise") == 0 && argc == 3) {
        std::raise(std::atoi(argv[2]));
        return 0;
    }
    if (std::strcmp(what, "system") == 0) {
        // One line of raw system() status per command, as the updater sees it.
        for (int i = 2; i < argc; ++i) {
            std::fflush(stdout);
            std::printf("%d\n", std::system(argv[i]));
        }
        return 0;
    }
    if (std::strcmp(what, "wait") == 0 && argc == 3) {
        // Prints its pid, then makes the file named by argv[2] to say it is ready.
        std::printf("ready %d\n", static_cast<int>(getpid()));
        std::fflush(stdout);
        std::fclose(std::fopen(argv[2], "w"));
        for (;;)
            pause();
    }
    if (std::strcmp(what, "env") == 0) {
        for (char** e = environ; *e != nullptr; ++e)
            std::printf("%s\n", *e);
        return 0;
    }
    return 2;
}
