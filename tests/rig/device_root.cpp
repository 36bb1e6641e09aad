#include "device_root.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace {

// Set by CMake for the rig library.
constexpr char launcher[] = DEVICE_ROOT_LAUNCHER;
constexpr char roots_base[] = DEVICE_ROOT_BASE;
constexpr char build_dir[] = DEVICE_ROOT_BUILD_DIR;
constexpr char updater_binary[] = DEVICE_ROOT_UPDATER;
constexpr char emulator[] = DEVICE_ROOT_EMULATOR;  // '|'-separated, may be empty

// Device path prefix -> directory under the root, as the launcher mounts them.
const std::pair<const char*, const char*> mounts[] = {
    {"/var/log", "var-log"},           {"/var/tmp", "var-tmp"}, {"/tmp", "tmp"},
    {"/tolven/local", "tolven-local"}, {"/run/fake", "fake"},
};

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

std::string unique_root_name() {
    std::string name = "root";
    if (const auto* info = ::testing::UnitTest::GetInstance()->current_test_info()) {
        name = std::string(info->test_suite_name()) + "." + info->name();
        for (char& c : name) {
            if (c == '/' || c == ' ') c = '_';
        }
    }
    return name + "-XXXXXX";
}

// Sanitizer settings of the test reach the program unless the test sets them.
const char* const passed_env[] = {"ASAN_OPTIONS", "UBSAN_OPTIONS",        "LSAN_OPTIONS",
                                  "TSAN_OPTIONS", "ASAN_SYMBOLIZER_PATH", "QEMU_LD_PREFIX"};

std::string format_seconds(double seconds) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.3f", seconds);
    return buf;
}

}  // namespace

struct device_root::process::state {
    pid_t launcher_pid = -1;
    int in_fd = -1;
    int out_fd = -1;
    int err_fd = -1;
    std::string pidfile;
    std::chrono::steady_clock::time_point deadline;
    std::thread reader;
    std::string out, err;
    bool waited = false;

    int wake_read = -1;  // readable once the program has been reaped
    int wake_write = -1;

    // Reads stdout and stderr until both reach end of file. A child of the
    // program that outlives it (a fake still sleeping after a kill) keeps them
    // open: after the wake-up, give up once nothing came for a moment.
    void drain() {
        pollfd fds[3] = {{out_fd, POLLIN, 0}, {err_fd, POLLIN, 0}, {wake_read, POLLIN, 0}};
        int open_fds = 2;
        int idle_ms = -1;
        char buf[65536];
        while (open_fds > 0) {
            const int ready = ::poll(fds, 3, idle_ms);
            if (ready < 0 && errno == EINTR) continue;
            if (ready <= 0) break;
            if (fds[2].revents != 0) {
                fds[2].fd = -1;
                idle_ms = 500;
            }
            for (int i = 0; i < 2; ++i) {
                if (fds[i].fd < 0 || fds[i].revents == 0) continue;
                const ssize_t n = ::read(fds[i].fd, buf, sizeof buf);
                if (n < 0 && errno == EINTR) continue;
                if (n <= 0) {
                    ::close(fds[i].fd);
                    fds[i].fd = -1;
                    --open_fds;
                    continue;
                }
                const auto len = static_cast<size_t>(n);
                if (i == 0) {
                    out.append(buf, len);
                } else {
                    err.append(buf, len);
                    // Keep sanitizer reports and the like visible in the test log.
                    std::fwrite(buf, 1, len, stderr);
                }
            }
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd >= 0) ::close(fds[i].fd);
        }
        out_fd = err_fd = -1;
    }
};

device_root::process::process(std::unique_ptr<state> s) : s_(std::move(s)) {}
device_root::process::process(process&&) noexcept = default;

device_root::process::~process() {
    if (!s_ || s_->waited) return;
    // bwrap runs with --die-with-parent below us; killing it takes the program along.
    const pid_t p = pid();
    if (p > 0) ::kill(p, SIGKILL);
    ::kill(s_->launcher_pid, SIGKILL);
    wait();
}

pid_t device_root::process::pid() const {
    const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < give_up) {
        const std::string text = slurp(s_->pidfile);
        if (!text.empty() && text.back() == '\n') {
            const pid_t p = static_cast<pid_t>(std::atoi(text.c_str()));
            // Until the wrapper shell has exec'd, the pid is still the shell's.
            const std::string cmdline = slurp("/proc/" + std::to_string(p) + "/cmdline");
            if (cmdline.find("device-root-exec") == std::string::npos) return p;
        }
        siginfo_t info{};
        const bool ended = s_->waited ||
                           ::waitid(P_PID, static_cast<id_t>(s_->launcher_pid), &info,
                                    WEXITED | WNOHANG | WNOWAIT) != 0 ||
                           info.si_pid != 0;
        if (ended) {
            // Gone (or reaped): whatever was written is all there will be.
            if (!text.empty()) return static_cast<pid_t>(std::atoi(text.c_str()));
            return -1;
        }
        ::usleep(2000);
    }
    return -1;
}

bool device_root::process::write_stdin(const std::string& bytes) {
    size_t done = 0;
    while (s_->in_fd >= 0 && done < bytes.size()) {
        const ssize_t n = ::write(s_->in_fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return done == bytes.size();
}

void device_root::process::close_stdin() {
    if (s_->in_fd >= 0) ::close(s_->in_fd);
    s_->in_fd = -1;
}

void device_root::process::kill(int sig) const {
    const pid_t p = pid();
    if (p > 0) ::kill(p, sig);
}

run_result device_root::process::wait(bool close_input) {
    run_result result;
    if (s_->waited) return result;
    if (close_input) close_stdin();
    int status = 0;
    for (;;) {
        const pid_t r = ::waitpid(s_->launcher_pid, &status, WNOHANG);
        if (r == s_->launcher_pid) break;
        if (r < 0 && errno != EINTR) break;
        if (std::chrono::steady_clock::now() >= s_->deadline && !result.timed_out) {
            result.timed_out = true;
            const pid_t p = pid();
            if (p > 0) ::kill(p, SIGKILL);
            ::kill(s_->launcher_pid, SIGKILL);
        }
        ::usleep(1000);
    }
    s_->waited = true;
    ::close(s_->wake_write);
    if (s_->reader.joinable()) s_->reader.join();
    ::close(s_->wake_read);
    result.out = std::move(s_->out);
    result.err = std::move(s_->err);
    if (WIFEXITED(status)) {
        result.exit_status = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        result.exit_status = 128 + WTERMSIG(status);
    }
    return result;
}

device_root::device_root() {
    fs::create_directories(roots_base);
    std::string templ = std::string(roots_base) + "/" + unique_root_name();
    if (::mkdtemp(templ.data()) == nullptr) {
        throw std::runtime_error("cannot create device root " + templ + ": " +
                                 std::strerror(errno));
    }
    dir_ = templ;
    for (const auto& m : mounts)
        fs::create_directories(dir_ + "/" + m.second);
    fs::create_directories(dir_ + "/pids");
    // As on the device: everybody may write the temporary directories.
    const auto tmp_perms = fs::perms::all | fs::perms::sticky_bit;
    fs::permissions(dir_ + "/tmp", tmp_perms);
    fs::permissions(dir_ + "/var-tmp", tmp_perms);
}

device_root::~device_root() {
    const char* keep = std::getenv("DEVICE_ROOT_KEEP");
    if (keep != nullptr && *keep != '\0' && std::strcmp(keep, "0") != 0) return;
    std::error_code ec;
    fs::remove_all(dir_, ec);
}

std::string device_root::host_path(const std::string& device_path) const {
    for (const auto& m : mounts) {
        const std::string prefix = m.first;
        if (device_path == prefix) return dir_ + "/" + m.second;
        if (device_path.compare(0, prefix.size(), prefix) == 0 &&
            device_path[prefix.size()] == '/') {
            return dir_ + "/" + m.second + device_path.substr(prefix.size());
        }
    }
    throw std::invalid_argument("not a path of the device root: " + device_path);
}

bool device_root::exists(const std::string& device_path) const {
    std::error_code ec;
    return fs::exists(fs::symlink_status(host_path(device_path), ec));
}

std::string device_root::read(const std::string& device_path) const {
    return slurp(host_path(device_path));
}

void device_root::write(const std::string& device_path, const std::string& bytes) {
    const std::string path = host_path(device_path);
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out.flush()) throw std::runtime_error("cannot write " + path);
}

void device_root::remove(const std::string& device_path) {
    std::error_code ec;
    fs::remove_all(host_path(device_path), ec);
}

std::vector<std::string> device_root::record() const {
    return lines_of(read("/run/fake/record"));
}

std::vector<std::string> device_root::record_detail() const {
    return lines_of(read("/run/fake/record-detail"));
}

void device_root::set_uci_value(const std::optional<std::string>& value) {
    if (value) {
        write("/run/fake/uci-value", *value);
    } else {
        remove("/run/fake/uci-value");
    }
}

void device_root::set_installer_status(int status) {
    write("/run/fake/installer-status", std::to_string(status));
}

void device_root::set_installer_delay(double seconds) {
    write("/run/fake/installer-delay", format_seconds(seconds));
}

void device_root::set_preupdate_delay(double seconds) {
    write("/run/fake/preupdate-delay", format_seconds(seconds));
}

std::vector<std::string> device_root::updater_command() {
    return program_command(updater_binary);
}

std::vector<std::string> device_root::program_command(const std::string& binary) {
    std::vector<std::string> cmd;
    std::string word;
    for (const char* c = emulator;; ++c) {
        if (*c == '|' || *c == '\0') {
            if (!word.empty()) cmd.push_back(word);
            word.clear();
            if (*c == '\0') break;
        } else {
            word += *c;
        }
    }
    cmd.push_back(binary);
    return cmd;
}

device_root::process device_root::spawn_command(const std::vector<std::string>& argv,
                                                const run_options& options) {
    auto s = std::make_unique<process::state>();
    s->pidfile = dir_ + "/pids/" + std::to_string(spawned_++);
    s->deadline = std::chrono::steady_clock::now() +
                  std::chrono::milliseconds(static_cast<long>(options.timeout_seconds * 1000));

    std::vector<std::string> words = {
        launcher, "--root", dir_, "--pidfile", s->pidfile, "--uid", std::to_string(options.uid)};
    if (options.readonly_log) words.push_back("--readonly-log");
    if (options.no_persistent) words.push_back("--no-persistent");
    for (const auto& [name, value] : options.env) {
        words.push_back("--env");
        words.push_back(name + "=" + value);
    }
    for (const char* name : passed_env) {
        const bool set_by_test = std::any_of(options.env.begin(), options.env.end(),
                                             [name](const auto& e) { return e.first == name; });
        if (!set_by_test) {
            words.push_back("--pass-env");
            words.push_back(name);
        }
    }
    words.push_back("--bind-ro");
    words.push_back(build_dir);
    for (const auto& path : options.bind_ro) {
        words.push_back("--bind-ro");
        words.push_back(path);
    }
    words.push_back("--");
    words.insert(words.end(), argv.begin(), argv.end());
    std::vector<char*> cargv;
    for (auto& w : words)
        cargv.push_back(w.data());
    cargv.push_back(nullptr);

    // A child that stops reading must not kill the test with SIGPIPE.
    ::signal(SIGPIPE, SIG_IGN);
    int in[2], out[2], err[2], wake[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0 ||
        ::pipe2(err, O_CLOEXEC) != 0 || ::pipe2(wake, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe failed");
    }
    const pid_t child = ::fork();
    if (child < 0) throw std::runtime_error("fork failed");
    if (child == 0) {
        // Only async-signal-safe calls from here: other threads may exist.
        ::dup2(in[0], 0);
        ::dup2(out[1], 1);
        ::dup2(err[1], 2);
        ::signal(SIGPIPE, SIG_DFL);
        sigset_t none;
        sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        ::execv(cargv[0], cargv.data());
        ::_exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    ::close(err[1]);
    s->launcher_pid = child;
    s->in_fd = in[1];
    s->out_fd = out[0];
    s->err_fd = err[0];
    s->wake_read = wake[0];
    s->wake_write = wake[1];
    s->reader = std::thread([st = s.get()] { st->drain(); });
    return process(std::move(s));
}

run_result device_root::run_command(const std::vector<std::string>& argv,
                                    const run_options& options) {
    process p = spawn_command(argv, options);
    p.write_stdin(options.stdin_data);
    return p.wait();
}

device_root::process device_root::spawn(const run_options& options) {
    std::vector<std::string> argv = updater_command();
    argv.insert(argv.end(), options.args.begin(), options.args.end());
    return spawn_command(argv, options);
}

run_result device_root::run(const run_options& options) {
    process p = spawn(options);
    p.write_stdin(options.stdin_data);
    return p.wait();
}
