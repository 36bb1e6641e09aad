#include "device_pool.h"

#include <atomic>
#include <chrono>
#include <thread>

#include "device_url.h"
#include "interrupt.h"
#include "progress_text.h"

namespace {
struct device_result {
    outcome result;
    double seconds = 0;
};

std::string padded(const std::string& text, size_t width) {
    return text + std::string(width > text.size() ? width - text.size() : 0, ' ');
}

std::string summary_table(const std::vector<std::string>& urls,
                          const std::vector<device_result>& results) {
    std::vector<std::vector<std::string>> rows = {{"device", "result", "error", "time"}};
    for (size_t i = 0; i < urls.size(); ++i) {
        const outcome& result = results[i].result;
        rows.push_back({device_label(urls[i]), exit_status_name(result.status), result.message,
                        seconds_text(results[i].seconds)});
    }
    std::vector<size_t> widths(rows[0].size(), 0);
    for (const auto& row : rows) {
        for (size_t c = 0; c < row.size(); ++c)
            widths[c] = std::max(widths[c], row[c].size());
    }
    std::string table = "\n";
    for (const auto& row : rows) {
        for (size_t c = 0; c + 1 < row.size(); ++c)
            table += padded(row[c], widths[c] + 2);
        table += row.back() + "\n";
    }
    return table;
}
}  // namespace

int update_devices(const std::vector<std::string>& urls, const update_settings& settings,
                   const retry_settings& retry, int parallel, console& out) {
    std::vector<device_result> results(urls.size());
    std::atomic<size_t> next{0};
    auto worker = [&] {
        for (size_t i = next++; i < urls.size(); i = next++) {
            const auto start = std::chrono::steady_clock::now();
            results[i].result =
                interrupted() ? outcome{EXIT_INTERRUPTED,
                                        "interrupted before this device's turn; nothing was sent"}
                              : update_with_retries(urls[i], settings, retry, out.device(i));
            results[i].seconds =
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            out.device(i).finished(results[i].result, results[i].seconds);
        }
    };
    std::vector<std::thread> workers;
    const size_t count = std::min(urls.size(), static_cast<size_t>(parallel));
    for (size_t w = 0; w < count; ++w)
        workers.emplace_back(worker);
    for (std::thread& w : workers)
        w.join();

    if (urls.size() == 1) return results[0].result.status;
    out.print(summary_table(urls, results));
    if (interrupted()) return EXIT_INTERRUPTED;
    for (const device_result& r : results) {
        if (!r.result.ok()) return EXIT_SOME_DEVICES_FAILED;
    }
    return EXIT_UPDATED;
}
