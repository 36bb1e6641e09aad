// Speed and memory of updater against what the machine does at best, run by
// scripts/bench inside a private device root (tests/rig/device-root), so the
// program's fixed paths are the root's. Groups (--benchmark_filter):
//   reassembly/MiB, cat/MiB             uploader::run in process against cat
//                                       copying the same body, sync() left out
//   reassembly_sync/MiB, cat_sync/MiB   the same with sync(): the program's
//                                       two, one after cat
//   request/NAME                        one whole request process, against
//                                       a do-nothing C++ program (noop)
//   post/MiB, post_static/MiB           the whole POST process: peak RSS
// The medians go to --results=FILE, one "name key=value..." line each.
#include <benchmark/benchmark.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "process.h"
#include "support/device_paths.h"
#include "upload/uploader.h"

// uploader::run calls sync() twice. The executable's definition takes the
// place of the C library's, so the copy can also be timed without them.
namespace {
bool sync_enabled = true;
}
extern "C" void sync() noexcept {
    if (sync_enabled) ::syscall(SYS_sync);
}

namespace {

constexpr size_t mib = 1024 * 1024;
constexpr char boundary[] = "----updaterbench7MA4YWxkTrZu0gW";
constexpr char cat_copy[] = "/tmp/bench-cat-copy";
constexpr char upload_file[] = "/var/tmp/lighttpd-upload-bench";
constexpr char fake_uci_value[] = "/run/fake/uci-value";

struct settings {
    std::string program;         // updater, dynamically linked
    std::string static_program;  // updater-static; its benchmarks are left out when empty
    std::string noop;            // the do-nothing C++ program
    std::string results;
    std::vector<size_t> sizes{4, 16, 64, 256};  // MiB, reassembly against cat
    std::vector<size_t> sync_sizes{256};
    std::vector<size_t> post_sizes{16, 64, 256};
    int request_iterations = 100;
};
settings config;

std::string form_head() {
    return std::string("--") + boundary +
           "\r\nContent-Disposition: form-data; name=\"package\"; filename=\"package.bin\"\r\n"
           "Content-Type: application/octet-stream\r\n\r\n";
}
std::string form_tail() { return std::string("\r\n--") + boundary + "--\r\n"; }

std::string body_path(size_t size_mib) { return "/var/tmp/bench-body-" + std::to_string(size_mib); }

size_t body_bytes(size_t size_mib) {
    return form_head().size() + size_mib * mib + form_tail().size();
}

// A form holding one package of pseudo-random bytes; made once per size.
void make_body(size_t size_mib) {
    std::string path = body_path(size_mib);
    struct stat existing {};
    if (::stat(path.c_str(), &existing) == 0 &&
        static_cast<size_t>(existing.st_size) == body_bytes(size_mib)) {
        return;
    }
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << form_head();
    std::vector<uint64_t> block(mib / sizeof(uint64_t));
    uint64_t state = 0x9e3779b97f4a7c15u ^ size_mib;
    for (size_t i = 0; i < size_mib; ++i) {
        for (uint64_t& word : block) {
            state ^= state << 13;
            state ^= state >> 7;
            state ^= state << 17;
            word = state;
        }
        out.write(reinterpret_cast<const char*>(block.data()), static_cast<std::streamsize>(mib));
    }
    out << form_tail();
}

off_t file_size(const char* path) {
    struct stat status {};
    return ::stat(path, &status) == 0 ? status.st_size : -1;
}

std::string cgi_length(size_t size_mib) {
    return "CONTENT_LENGTH=" + std::to_string(body_bytes(size_mib));
}
std::string cgi_type() { return std::string("CONTENT_TYPE=multipart/form-data; boundary=") + boundary; }

// Every copy starts with no target file and nothing waiting for the disk.
void clean_start(const char* target) {
    ::unlink(target);
    ::syscall(SYS_sync);
}

void write_file(const char* path, const std::string& content) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

// ---- reassembly ---------------------------------------------------------------

void reassembly(benchmark::State& state, size_t size_mib, bool with_sync) {
    make_body(size_mib);
    std::string length = cgi_length(size_mib).substr(std::strlen("CONTENT_LENGTH="));
    ::setenv("CONTENT_LENGTH", length.c_str(), 1);
    ::setenv("CONTENT_TYPE", cgi_type().substr(std::strlen("CONTENT_TYPE=")).c_str(), 1);
    for (auto _ : state) {
        state.PauseTiming();
        clean_start(paths::package_file);
        int body = ::open(body_path(size_mib).c_str(), O_RDONLY | O_CLOEXEC);
        sync_enabled = with_sync;
        state.ResumeTiming();

        int result = uploader(body).run();

        state.PauseTiming();
        sync_enabled = true;
        ::close(body);
        if (result != 0 || file_size(paths::package_file) != static_cast<off_t>(size_mib * mib)) {
            state.SkipWithError("the package file is not the package");
        }
        state.ResumeTiming();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(size_mib * mib));
}

void cat(benchmark::State& state, size_t size_mib, bool with_sync) {
    make_body(size_mib);
    spawn_spec spec;
    spec.argv = {"/bin/cat", body_path(size_mib)};
    spec.output = cat_copy;
    for (auto _ : state) {
        state.PauseTiming();
        clean_start(cat_copy);
        state.ResumeTiming();

        reaped done = reap(spawn(spec));
        if (with_sync) ::syscall(SYS_sync);

        state.PauseTiming();
        if (done.status != 0) state.SkipWithError("cat failed");
        state.ResumeTiming();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(size_mib * mib));
}

// ---- requests ---------------------------------------------------------------

std::vector<std::string> get_env(const char* query) {
    return environment_with({"REQUEST_METHOD=GET", std::string("QUERY_STRING=") + query});
}

void run_to_end(const std::string& program, const std::vector<std::string>& env) {
    spawn_spec spec;
    spec.argv = {program};
    spec.env = env;
    reap(spawn(spec));
}

// The device while lighttpd receives a package: the first progress request
// found the upload file, took the lock and logged "receiving package file".
void receiving_state(const std::string& program) {
    for (const char* path : {paths::lock_file, paths::log_file, paths::status_file, upload_file}) {
        ::unlink(path);
    }
    run_to_end(program, get_env("request=1"));
    write_file(upload_file, "partial body");
    run_to_end(program, get_env("request=1"));
}

void request(benchmark::State& state, const std::string& program, const char* query) {
    receiving_state(config.program);
    spawn_spec spec;
    spec.argv = {program};
    spec.env = get_env(query);
    long maxrss = 0;
    for (auto _ : state) {
        reaped done = reap(spawn(spec));
        if (done.status != 0) {
            state.SkipWithError("the request failed");
            break;
        }
        maxrss = std::max(maxrss, done.maxrss_kib);
    }
    state.counters["maxrss_kib"] = static_cast<double>(maxrss);
}

// ---- the POST process -----------------------------------------------------------

bool log_holds(const char* text) {
    std::ifstream log(paths::log_file);
    std::stringstream content;
    content << log.rdbuf();
    return content.str().find(text) != std::string::npos;
}

// The whole POST up to the pause before the reboot, where it is ended: its
// peak RSS is read there (its own), and wait4 gives ru_maxrss (its own or
// that of a reaped child such as the fake installer, whichever is larger).
void post(benchmark::State& state, const std::string& program, size_t size_mib) {
    make_body(size_mib);
    spawn_spec spec;
    spec.argv = {program};
    spec.env = environment_with({"REQUEST_METHOD=POST", cgi_length(size_mib), cgi_type()});
    spec.input = body_path(size_mib);
    long peak = 0;
    long maxrss = 0;
    for (auto _ : state) {
        state.PauseTiming();
        for (const char* path : {paths::lock_file, paths::log_file, paths::status_file,
                                 paths::package_file, upload_file}) {
            ::unlink(path);
        }
        write_file(fake_uci_value, "true\n");
        ::syscall(SYS_sync);
        state.ResumeTiming();

        pid_t pid = spawn(spec);
        bool paused = false;
        for (int waited_ms = 0; pid > 0 && waited_ms < 120000; waited_ms += 2) {
            if (log_holds("update completed")) {
                paused = true;
                break;
            }
            siginfo_t ended{};
            if (::waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
                ended.si_pid == pid) {
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        long own = paused ? peak_rss_kib(pid) : -1;
        if (pid > 0) ::kill(pid, SIGTERM);
        reaped done = reap(pid);

        if (!paused || own < 0) {
            state.SkipWithError("the POST did not reach the pause before the reboot");
            break;
        }
        peak = std::max(peak, own);
        maxrss = std::max(maxrss, done.maxrss_kib);
    }
    state.counters["peak_rss_kib"] = static_cast<double>(peak);
    state.counters["maxrss_kib"] = static_cast<double>(maxrss);
}

// ---- registration and results -----------------------------------------------------

std::vector<size_t> parse_sizes(const std::string& text) {
    std::vector<size_t> sizes;
    std::stringstream list(text);
    std::string item;
    while (std::getline(list, item, ',')) {
        if (!item.empty()) sizes.push_back(std::stoul(item));
    }
    return sizes;
}

// Takes this program's own flags out of argv; the rest is Google Benchmark's.
void parse_settings(int& argc, char** argv) {
    int kept = 1;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        auto value = [&](const char* name) -> const char* {
            size_t length = std::strlen(name);
            return arg.compare(0, length, name) == 0 ? argv[i] + length : nullptr;
        };
        if (const char* v = value("--program=")) {
            config.program = v;
        } else if (const char* s = value("--static-program=")) {
            config.static_program = s;
        } else if (const char* n = value("--noop=")) {
            config.noop = n;
        } else if (const char* r = value("--results=")) {
            config.results = r;
        } else if (const char* z = value("--sizes=")) {
            config.sizes = parse_sizes(z);
        } else if (const char* y = value("--sync-sizes=")) {
            config.sync_sizes = parse_sizes(y);
        } else if (const char* p = value("--post-sizes=")) {
            config.post_sizes = parse_sizes(p);
        } else if (const char* q = value("--request-iterations=")) {
            config.request_iterations = std::atoi(q);
        } else {
            argv[kept++] = argv[i];
        }
    }
    argc = kept;
}

// Few iterations of the large copies; the small ones repeat to reach ~64 MiB.
int64_t copy_iterations(size_t size_mib) { return std::max<int64_t>(1, 64 / static_cast<int64_t>(size_mib)); }

void register_all() {
    using benchmark::RegisterBenchmark;
    for (size_t size : config.sizes) {
        std::string n = std::to_string(size);
        RegisterBenchmark(("reassembly/" + n).c_str(), reassembly, size, false)
            ->Iterations(copy_iterations(size))
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond);
        RegisterBenchmark(("cat/" + n).c_str(), cat, size, false)
            ->Iterations(copy_iterations(size))
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond);
    }
    for (size_t size : config.sync_sizes) {
        std::string n = std::to_string(size);
        RegisterBenchmark(("reassembly_sync/" + n).c_str(), reassembly, size, true)
            ->Iterations(1)
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond);
        RegisterBenchmark(("cat_sync/" + n).c_str(), cat, size, true)
            ->Iterations(1)
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond);
    }
    struct named_program {
        const char* suffix;
        std::string path;
    };
    std::vector<named_program> programs{{"", config.program}};
    if (!config.static_program.empty()) programs.push_back({"_static", config.static_program});
    for (const named_program& p : programs) {
        RegisterBenchmark((std::string("request/progress") + p.suffix).c_str(), request, p.path,
                          "request=1")
            ->Iterations(config.request_iterations)
            ->UseRealTime()
            ->Unit(benchmark::kMicrosecond);
        RegisterBenchmark((std::string("request/lock_state") + p.suffix).c_str(), request, p.path,
                          "status=1")
            ->Iterations(config.request_iterations)
            ->UseRealTime()
            ->Unit(benchmark::kMicrosecond);
    }
    if (!config.noop.empty()) {
        RegisterBenchmark("request/noop", request, config.noop, "")
            ->Iterations(config.request_iterations)
            ->UseRealTime()
            ->Unit(benchmark::kMicrosecond);
    }
    for (const named_program& p : programs) {
        for (size_t size : config.post_sizes) {
            RegisterBenchmark((std::string("post") + p.suffix + "/" + std::to_string(size)).c_str(),
                              post, p.path, size)
                ->Iterations(1)
                ->UseRealTime()
                ->Unit(benchmark::kMillisecond);
        }
    }
}

// Shows the usual console output and keeps the medians (or the single run
// when there are no repetitions) for scripts/bench.
class results_reporter : public benchmark::ConsoleReporter {
public:
    explicit results_reporter(std::ostream& out) : ConsoleReporter(OO_Tabular), results(out) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.error_occurred) continue;
            bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            bool single = run.run_type == Run::RT_Iteration && run.repetitions <= 1;
            if (!median && !single) continue;
            double seconds =
                run.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(run.time_unit);
            results << run.run_name.function_name << " seconds=" << seconds;
            for (const auto& [name, counter] : run.counters) {
                results << ' ' << name << '=' << static_cast<double>(counter);
            }
            results << '\n' << std::flush;
        }
    }

private:
    std::ostream& results;
};

}  // namespace

int main(int argc, char** argv) {
    parse_settings(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    if (config.program.empty()) {
        std::fprintf(stderr, "updater_bench: --program=PATH is needed\n");
        return 2;
    }
    register_all();
    std::ofstream results_file;
    if (!config.results.empty()) results_file.open(config.results, std::ios::app);
    std::ostream& results = config.results.empty() ? std::cout : results_file;
    results_reporter reporter(results);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
