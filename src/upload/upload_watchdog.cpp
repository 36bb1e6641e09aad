#include "upload/upload_watchdog.h"

#include <unistd.h>
#include <cstdlib>
#include <mutex>

#include "state/update_error.h"
#include "state/updater_lock.h"

namespace {

constexpr time_t period_seconds = 2;

// Who owns the end of the current upload: nobody yet, the expiry action, or
// the main thread that stopped the watchdog. One upload runs per process.
enum class claim { open, expired, stopped };
std::mutex claim_mutex;
claim current_claim = claim::open;

bool try_claim(claim who) {
    std::lock_guard<std::mutex> guard(claim_mutex);
    if (current_claim != claim::open) return false;
    current_claim = who;
    return true;
}

#if defined(__SANITIZE_THREAD__)
#define WATCHDOG_OWN_NOTIFY_THREAD 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define WATCHDOG_OWN_NOTIFY_THREAD 1
#endif
#endif

#ifndef WATCHDOG_OWN_NOTIFY_THREAD

int create_timer(sigevent& event, timer_t* timer) {
    event.sigev_notify = SIGEV_THREAD;
    event.sigev_notify_function = &upload_watchdog::on_expiry;
    event.sigev_notify_attributes = nullptr;
    return timer_create(CLOCK_REALTIME, &event, timer);
}

void end_notification() {}

#else
}  // namespace

#include <pthread.h>
#include <sys/syscall.h>
#include <atomic>
#include <future>
#include <thread>

namespace {

// ThreadSanitizer cannot follow the threads the C library starts for
// SIGEV_THREAD and crashes in them. Under it alone, each expiry is a signal
// to a thread of the watchdog's own, which runs the same expiry action.
const int notify_signal = SIGRTMIN + 2;
std::thread* notifier = nullptr;  // left running when the expiry exits the process
std::atomic<bool> notifier_quits{false};

int create_timer(sigevent& event, timer_t* timer) {
    std::promise<pid_t> started;
    std::future<pid_t> tid = started.get_future();
    notifier_quits = false;
    notifier = new std::thread([&started] {
        sigset_t wanted;
        sigemptyset(&wanted);
        sigaddset(&wanted, notify_signal);
        pthread_sigmask(SIG_BLOCK, &wanted, nullptr);
        started.set_value(static_cast<pid_t>(::syscall(SYS_gettid)));
        for (;;) {
            siginfo_t info{};
            if (sigwaitinfo(&wanted, &info) < 0) continue;
            if (notifier_quits) return;
            upload_watchdog::on_expiry(info.si_value);
        }
    });
    event.sigev_notify = SIGEV_THREAD_ID;
    event.sigev_signo = notify_signal;
    event._sigev_un._tid = tid.get();
    return timer_create(CLOCK_REALTIME, &event, timer);
}

void end_notification() {
    if (notifier == nullptr) return;
    notifier_quits = true;
    pthread_kill(notifier->native_handle(), notify_signal);
    notifier->join();
    delete notifier;
    notifier = nullptr;
}

#endif

}  // namespace

upload_watchdog::upload_watchdog(void* owner_object) : owner(owner_object) {}

upload_watchdog::~upload_watchdog() {
    if (running) stop();
}

int upload_watchdog::start() {
    {
        std::lock_guard<std::mutex> guard(claim_mutex);
        current_claim = claim::open;
    }
    sigevent event{};
    event.sigev_value.sival_ptr = owner;
    if (create_timer(event, &timer) != 0) {
        end_notification();
        return -1;
    }
    running = true;
    return rearm();
}

int upload_watchdog::rearm() {
    if (!running) return 0;
    itimerspec countdown{};
    countdown.it_value.tv_sec = period_seconds;
    countdown.it_interval.tv_sec = period_seconds;
    return timer_settime(timer, 0, &countdown, nullptr);
}

int upload_watchdog::stop() {
    if (!running) return 0;
    running = false;
    bool expiry_has_begun = !try_claim(claim::stopped);
    int result = timer_delete(timer);
    if (!expiry_has_begun) end_notification();
    // The expiry action is ending the update and will exit the process; the
    // main thread must not go on to report in parallel.
    if (expiry_has_begun) {
        for (;;)
            ::pause();
    }
    return result;
}

void upload_watchdog::on_expiry(sigval) {
    if (!try_claim(claim::expired)) return;
    updater_unlock();
    int result = update_error::instance().end_update_with_error(ERROR_UPLOAD_TIMEOUT);
    std::exit(result);
}
