// SPDX-License-Identifier: MIT
#include "watchdog.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <unistd.h>

std::atomic<const char*> Watchdog::s_stage {"starting"};
std::atomic<qint64> Watchdog::s_childPid {0};

Watchdog::Watchdog(int seconds)
    : m_seconds(seconds)
    , m_thread([this] {
        run();
    })
{
}

Watchdog::~Watchdog()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_done = true;
    }
    m_cancelled.notify_all();
    m_thread.join();
}

void Watchdog::setStage(const char* stage)
{
    s_stage.store(stage);
}

void Watchdog::setChildProcess(qint64 pid)
{
    s_childPid.store(pid);
}

void Watchdog::run()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_cancelled.wait_for(lock, std::chrono::seconds(m_seconds), [this] {
            return m_done;
        }))
        return;
    // Only plain system calls from here: the GUI thread may hold any lock.
    std::fprintf(stderr, "gui_helpers_demo: FAILED: gave up after %d s while %s\n", m_seconds, s_stage.load());
    std::fflush(stderr);
    if (const qint64 pid = s_childPid.load(); pid > 0)
        ::kill(static_cast<pid_t>(pid), SIGTERM);
    ::_exit(3);
}
