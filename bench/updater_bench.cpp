// Speed and memory of updater against what the machine does at best, run by
// scripts/bench inside a private device root (tests/rig/device-root), so the
// program's fixed paths are the root's.
//
// The machine is shared, so every speed figure is taken side by side: each
// iteration times the program and its reference one right after the other,
// in alternating order, and the counters are medians over the iterations.
//   copy/MiB        uploader::run in this process against cat copying the same
//                   body to the same file system; sync() left out
//   copy_sync/MiB   the same with sync(): the program's two, one after cat
//   requests        whole request processes against a do-nothing C++ program
//   post/MiB, post_static/MiB
//                   the whole POST process up to the pause before the reboot:
//                   peak resident memory (needs --probe=rss_probe)
// With --results=FILE the counters also go there, one "name key=value..."
// line per benchmark, for scripts/bench.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
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

using seconds = std::chrono::duration<double>;
using clock_type = std::chrono::steady_clock;

constexpr size_t mib = 1024 * 1024;
constexpr char boundary[] = "----updaterbench7MA4YWxkTrZu0gW";
constexpr char cat_copy[] = "/tmp/bench-cat-copy";
constexpr char upload_file[] = "/var/tmp/lighttpd-upload-bench";
constexpr char fake_uci_value[] = "/run/fake/uci-value";
constexpr char probe_report_file[] = "/tmp/bench-probe-report";

struct settings {
    std::string program;         // updater, dynamically linked
    std::string static_program;  // updater-static; left out when empty
    std::string noop;            // the do-nothing C++ program
    std::string probe;           // rss_probe; no memory figures without it
    std::string results;
    std::vector<size_t> sizes{4, 16, 64, 256};  // MiB
    std::vector<size_t> sync_sizes{256};
    std::vector<size_t> post_sizes{16, 64, 256};
    int copy_pairs = 7;  // of the largest size; smaller ones get more
    int request_rounds = 200;
    int post_runs = 2;
};
settings config;

double median(std::vector<double> values) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    size_t middle = values.size() / 2;
    return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

double time_of(const std::function<void()>& work) {
    auto start = clock_type::now();
    work();
    return seconds(clock_type::now() - start).count();
}

// ---- the request body -----------------------------------------------------------

std::string form_head() {
    return std::string("--") + boundary +
           "\r\nContent-Disposition: form-data; name=\"package\"; filename=\"package.bin\"\r\n"
           "Content-Type: application/octet-stream\r\n\r\n";
}
std::string form_tail() {
    return std::string("\r\n--") + boundary + "--\r\n";
}

std::string body_path(size_t size_mib) {
    return "/var/tmp/bench-body-" + std::to_string(size_mib);
}

size_t body_bytes(size_t size_mib) {
    return form_head().size() + size_mib * mib + form_tail().size();
}
std::string content_length(size_t size_mib) {
    return std::to_string(body_bytes(size_mib));
}
std::string content_type() {
    return std::string("multipart/form-data; boundary=") + boundary;
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

void write_file(const char* path, const std::string& content) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

// ---- rss_probe ------------------------------------------------------------------

struct probe_report {
    pid_t pid = -1;
    long maxrss_kib = -1;
};

probe_report read_probe_report() {
    probe_report report;
    std::ifstream in(probe_report_file);
    std::string word;
    while (in >> word) {
        if (word == "pid") in >> report.pid;
        if (word == "maxrss_kib") in >> report.maxrss_kib;
    }
    return report;
}

// The same process, started through rss_probe.
spawn_job probed(spawn_job job) {
    job.argv.insert(job.argv.begin(), {config.probe, probe_report_file});
    return job;
}

long probed_maxrss_kib(const spawn_job& job) {
    ::unlink(probe_report_file);
    reap(spawn(probed(job)));
    return read_probe_report().maxrss_kib;
}

// ---- copy: reassembly against cat --------------------------------------------------

struct copy_cost {
    double wall = -1;  // negative when the copy failed
    double cpu = 0;
};

// One reassembly of the body, from a clean start (no package file, nothing
// waiting for the disk).
copy_cost reassembly_cost(size_t size_mib, bool with_sync) {
    ::unlink(paths::package_file);
    ::syscall(SYS_sync);
    int body = ::open(body_path(size_mib).c_str(), O_RDONLY | O_CLOEXEC);
    int result = -1;
    sync_enabled = with_sync;
    copy_cost cost;
    double cpu_before = own_cpu_seconds();
    cost.wall = time_of([&] { result = uploader(body).run(); });
    cost.cpu = own_cpu_seconds() - cpu_before;
    sync_enabled = true;
    ::close(body);
    bool whole =
        result == 0 && file_size(paths::package_file) == static_cast<off_t>(size_mib * mib);
    if (!whole) cost.wall = -1;
    return cost;
}

copy_cost cat_cost(size_t size_mib, bool with_sync) {
    ::unlink(cat_copy);
    ::syscall(SYS_sync);
    spawn_job job;
    job.argv = {"/bin/cat", body_path(size_mib)};
    job.output = cat_copy;
    reaped done;
    copy_cost cost;
    cost.wall = time_of([&] {
        done = reap(spawn(job));
        if (with_sync) ::syscall(SYS_sync);
    });
    cost.cpu = done.cpu_seconds;
    if (done.status != 0) cost.wall = -1;
    return cost;
}

// Wall-time figures (throughput, what the user waits for) and CPU figures
// (the work done, which a busy machine disturbs less). The CPU of sync()
// runs in the kernel's flusher threads and counts for neither side.
void copy(benchmark::State& state, size_t size_mib, bool with_sync) {
    make_body(size_mib);
    ::setenv("CONTENT_LENGTH", content_length(size_mib).c_str(), 1);
    ::setenv("CONTENT_TYPE", content_type().c_str(), 1);
    const double bytes = static_cast<double>(size_mib * mib);
    std::vector<double> program, reference, ratio, cpu_ratio;
    for (auto _ : state) {
        bool program_first = program.size() % 2 == 0;
        copy_cost p, c;
        if (program_first) p = reassembly_cost(size_mib, with_sync);
        c = cat_cost(size_mib, with_sync);
        if (!program_first) p = reassembly_cost(size_mib, with_sync);
        if (p.wall <= 0 || c.wall <= 0) {
            state.SkipWithError(p.wall <= 0 ? "the package file is not the package" : "cat failed");
            break;
        }
        state.SetIterationTime(p.wall);
        program.push_back(bytes / p.wall);
        reference.push_back(bytes / c.wall);
        ratio.push_back(c.wall / p.wall);
        if (p.cpu > 0) cpu_ratio.push_back(c.cpu / p.cpu);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes));
    state.counters["program_MBps"] = median(program) / 1e6;
    state.counters["cat_MBps"] = median(reference) / 1e6;
    state.counters["ratio"] = median(ratio);
    state.counters["cpu_ratio"] = median(cpu_ratio);
}

// ---- requests -------------------------------------------------------------------

std::vector<std::string> get_env(const char* query) {
    return environment_with({"REQUEST_METHOD=GET", std::string("QUERY_STRING=") + query});
}

spawn_job request_spec(const std::string& program, const char* query) {
    spawn_job job;
    job.argv = {program};
    job.env = get_env(query);
    return job;
}

// The device while lighttpd receives a package: the first progress request
// found the upload file, took the lock and logged "receiving package file".
// Requests in this state change nothing.
void receiving_state() {
    for (const char* path : {paths::lock_file, paths::log_file, paths::status_file, upload_file}) {
        ::unlink(path);
    }
    reap(spawn(request_spec(config.program, "request=1")));
    write_file(upload_file, "partial body");
    reap(spawn(request_spec(config.program, "request=1")));
}

struct timed_process {
    std::string name;
    spawn_job job;
    std::vector<double> times;
};

// Each round starts every process once, in an order that rotates.
void requests(benchmark::State& state) {
    receiving_state();
    std::vector<timed_process> processes{
        {"noop", request_spec(config.noop, ""), {}},
        {"progress", request_spec(config.program, "request=1"), {}},
        {"lock_state", request_spec(config.program, "status=1"), {}},
    };
    if (!config.static_program.empty()) {
        processes.push_back(
            {"progress_static", request_spec(config.static_program, "request=1"), {}});
        processes.push_back(
            {"lock_state_static", request_spec(config.static_program, "status=1"), {}});
    }
    size_t round = 0;
    for (auto _ : state) {
        double total = 0;
        for (size_t i = 0; i < processes.size(); ++i) {
            timed_process& process = processes[(round + i) % processes.size()];
            int status = -1;
            double time = time_of([&] { status = reap(spawn(process.job)).status; });
            if (status != 0)
                state.SkipWithError(("the " + process.name + " process failed").c_str());
            process.times.push_back(time);
            total += time;
        }
        state.SetIterationTime(total);
        ++round;
    }
    const std::vector<double>& floor = processes[0].times;
    for (const timed_process& process : processes) {
        state.counters[process.name + "_us"] = median(process.times) * 1e6;
        if (&process.times == &floor) continue;
        std::vector<double> ratio;
        for (size_t i = 0; i < floor.size(); ++i)
            ratio.push_back(process.times[i] / floor[i]);
        state.counters[process.name + "_ratio"] = median(ratio);
    }
    if (!config.probe.empty()) {
        for (const timed_process& process : processes) {
            state.counters[process.name + "_maxrss_kib"] =
                static_cast<double>(probed_maxrss_kib(process.job));
        }
    }
}

// ---- the POST process -------------------------------------------------------------

bool log_holds(const char* text) {
    std::ifstream log(paths::log_file);
    std::stringstream content;
    content << log.rdbuf();
    return content.str().find(text) != std::string::npos;
}

bool has_ended(pid_t pid) {
    siginfo_t ended{};
    return ::waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           ended.si_pid == pid;
}

// The whole POST up to the pause before the reboot, where it is ended. Its
// own peak RSS is read there; wait4 (in rss_probe) gives ru_maxrss, its own
// or that of a reaped child such as the fake installer, whichever is larger.
void post(benchmark::State& state, const std::string& program, size_t size_mib) {
    make_body(size_mib);
    spawn_job job;
    job.argv = {program};
    job.env = environment_with({"REQUEST_METHOD=POST", "CONTENT_LENGTH=" + content_length(size_mib),
                                "CONTENT_TYPE=" + content_type()});
    job.input = body_path(size_mib);
    job = probed(job);
    long peak = 0;
    long maxrss = 0;
    for (auto _ : state) {
        for (const char* path : {paths::lock_file, paths::log_file, paths::status_file,
                                 paths::package_file, upload_file, probe_report_file}) {
            ::unlink(path);
        }
        write_file(fake_uci_value, "true\n");
        ::syscall(SYS_sync);

        auto start = clock_type::now();
        pid_t probe = spawn(job);
        bool paused = false;
        while (probe > 0 && clock_type::now() - start < std::chrono::seconds(120)) {
            if (log_holds("update completed")) {
                paused = true;
                break;
            }
            if (has_ended(probe)) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        state.SetIterationTime(seconds(clock_type::now() - start).count());
        pid_t updater = read_probe_report().pid;
        long own = paused && updater > 0 ? peak_rss_kib(updater) : -1;
        if (updater > 0) ::kill(updater, SIGTERM);
        reap(probe);

        if (own < 0) {
            state.SkipWithError("the POST did not reach the pause before the reboot");
            break;
        }
        peak = std::max(peak, own);
        maxrss = std::max(maxrss, read_probe_report().maxrss_kib);
    }
    state.counters["peak_rss_kib"] = static_cast<double>(peak);
    state.counters["maxrss_kib"] = static_cast<double>(maxrss);
}

// ---- registration and results -------------------------------------------------------

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
    std::map<std::string, std::function<void(const char*)>> flags{
        {"--program=", [](const char* v) { config.program = v; }},
        {"--static-program=", [](const char* v) { config.static_program = v; }},
        {"--noop=", [](const char* v) { config.noop = v; }},
        {"--probe=", [](const char* v) { config.probe = v; }},
        {"--results=", [](const char* v) { config.results = v; }},
        {"--sizes=", [](const char* v) { config.sizes = parse_sizes(v); }},
        {"--sync-sizes=", [](const char* v) { config.sync_sizes = parse_sizes(v); }},
        {"--post-sizes=", [](const char* v) { config.post_sizes = parse_sizes(v); }},
        {"--copy-pairs=", [](const char* v) { config.copy_pairs = std::atoi(v); }},
        {"--request-rounds=", [](const char* v) { config.request_rounds = std::atoi(v); }},
        {"--post-runs=", [](const char* v) { config.post_runs = std::atoi(v); }},
    };
    int kept = 1;
    for (int i = 1; i < argc; ++i) {
        bool taken = false;
        for (const auto& [name, set] : flags) {
            if (std::strncmp(argv[i], name.c_str(), name.size()) == 0) {
                set(argv[i] + name.size());
                taken = true;
                break;
            }
        }
        if (!taken) argv[kept++] = argv[i];
    }
    argc = kept;
}

// The large copies take a few pairs; the small ones more, at similar cost.
int64_t copy_pairs(size_t size_mib) {
    size_t largest = *std::max_element(config.sizes.begin(), config.sizes.end());
    int64_t pairs = config.copy_pairs;
    for (size_t s = size_mib; s < largest && pairs < 4 * config.copy_pairs; s *= 4)
        pairs += pairs / 2;
    return std::max<int64_t>(1, pairs);
}

void register_all() {
    using benchmark::RegisterBenchmark;
    for (size_t size : config.sizes) {
        RegisterBenchmark(("copy/" + std::to_string(size)).c_str(), copy, size, false)
            ->Iterations(copy_pairs(size))
            ->UseManualTime()
            ->Unit(benchmark::kMillisecond);
    }
    for (size_t size : config.sync_sizes) {
        RegisterBenchmark(("copy_sync/" + std::to_string(size)).c_str(), copy, size, true)
            ->Iterations(std::max(1, config.copy_pairs - 2))
            ->UseManualTime()
            ->Unit(benchmark::kMillisecond);
    }
    if (!config.noop.empty()) {
        RegisterBenchmark("requests", requests)
            ->Iterations(config.request_rounds)
            ->UseManualTime()
            ->Unit(benchmark::kMillisecond);
    }
    if (config.probe.empty()) return;
    std::vector<std::pair<std::string, std::string>> programs{{"post", config.program}};
    if (!config.static_program.empty()) programs.emplace_back("post_static", config.static_program);
    for (const auto& [name, path] : programs) {
        for (size_t size : config.post_sizes) {
            RegisterBenchmark((name + "/" + std::to_string(size)).c_str(), post, path, size)
                ->Iterations(config.post_runs)
                ->UseManualTime()
                ->Unit(benchmark::kMillisecond);
        }
    }
}

// The console table as usual; the counters also go to the results file.
class results_reporter : public benchmark::ConsoleReporter {
  public:
    explicit results_reporter(std::ostream* out) : ConsoleReporter(OO_Tabular), results(out) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        if (results == nullptr) return;
        for (const Run& run : runs) {
            if (run.error_occurred || run.run_type != Run::RT_Iteration) continue;
            *results << run.run_name.function_name;
            for (const auto& [name, counter] : run.counters) {
                *results << ' ' << name << '=' << static_cast<double>(counter);
            }
            *results << '\n' << std::flush;
        }
    }

  private:
    std::ostream* results;
};

}  // namespace

int main(int argc, char** argv) {
    parse_settings(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    if (config.program.empty() || config.sizes.empty()) {
        std::fprintf(stderr, "updater_bench: --program=PATH is needed\n");
        return 2;
    }
    register_all();
    std::ofstream results_file;
    if (!config.results.empty()) results_file.open(config.results, std::ios::app);
    results_reporter reporter(config.results.empty() ? nullptr : &results_file);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
