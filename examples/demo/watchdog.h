// SPDX-License-Identifier: MIT
//
// Bounds a headless run: whatever blocks, the process ends after the time-out.
#pragma once

#include <QtGlobal>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

/**
 * A thread that ends the process when the run takes longer than allowed. It works even
 * when the GUI thread is stuck (a blocking call, a modal loop), which a QTimer would not.
 * On expiry it prints which stage was running, stops the child server (if any) and exits
 * with code 3. Destroying the watchdog disarms it.
 */
class Watchdog
{
public:
    explicit Watchdog(int seconds);
    ~Watchdog();
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

    /** What the run is doing now, for the time-out message. @p stage must be a string literal. */
    static void setStage(const char* stage);
    /** A child process to stop on expiry (0: none). */
    static void setChildProcess(qint64 pid);

private:
    void run();

    const int m_seconds;
    std::mutex m_mutex;
    std::condition_variable m_cancelled;
    bool m_done = false;
    std::thread m_thread;

    static std::atomic<const char*> s_stage;
    static std::atomic<qint64> s_childPid;
};
