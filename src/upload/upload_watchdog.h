#pragma once

#include <csignal>
#include <ctime>

// Ends an upload whose body stops arriving. A POSIX timer (CLOCK_REALTIME,
// SIGEV_THREAD, 2 s first expiry and period) runs only while the body is
// copied; every read that delivers data re-arms it. On expiry, on a thread the
// system starts, it removes the lock, ends the update with "upload timeout"
// and exits the process with -6.
//
// Promises: the expiry action runs at most once per upload, although the
// timer keeps firing every 2 s while ending an update takes longer; and it
// never reports while the main thread does. Both are settled by one claim:
// the expiry action and stop() each try to claim the upload. If the expiry
// claims first, stop() never returns (the expiry action ends the process);
// if stop() claims first, a late expiry does nothing.
class upload_watchdog {
  public:
    explicit upload_watchdog(void* owner);
    ~upload_watchdog();

    // Creates and arms the timer; 0, or -1 when that failed (the upload then
    // runs without a time limit).
    int start();
    // Starts the 2-second countdown afresh; 0 or -1.
    int rearm();
    // Deletes the timer; 0 or -1. Does not return if the expiry action has
    // already begun.
    int stop();

    // The expiry action. Does not return when it runs.
    static void on_expiry(sigval value);

    upload_watchdog(const upload_watchdog&) = delete;
    upload_watchdog& operator=(const upload_watchdog&) = delete;

  private:
    void* owner;  // handed to the notification, which does not use it
    timer_t timer{};
    bool running = false;
};
