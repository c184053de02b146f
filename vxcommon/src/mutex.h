// SPDX-License-Identifier: MIT
//
// A recursive mutex that knows who holds it, and a scoped lock for it. Knowing the owner
// and the depth lets code assert "I hold this lock" and lets diagnostics name the thread
// that blocks everybody else.
#pragma once

#include "vxcommon_export.h"

#include <atomic>
#include <mutex>
#include <thread>

namespace veltrax
{

/**
 * A recursive mutex. The owning thread may lock it again; it is released when every
 * lock() has been matched by an unlock(). owner() and recursionCount() may be read from
 * any thread; they are exact only when read by the owner.
 */
class VXCOMMON_EXPORT Mutex
{
public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock();
    /** Takes the lock when that needs no waiting; returns whether it did. */
    bool tryLock();
    void unlock();

    /** The thread that holds the lock, or a default id when it is free. */
    std::thread::id owner() const { return m_owner.load(std::memory_order_acquire); }
    /** How many times the owner has locked without unlocking yet (0 when free). */
    int recursionCount() const { return m_count.load(std::memory_order_acquire); }
    bool isLockedByCurrentThread() const { return owner() == std::this_thread::get_id(); }

private:
    std::recursive_mutex m_mutex;
    std::atomic<std::thread::id> m_owner {};
    std::atomic<int> m_count {0};
};

/** Holds a Mutex from construction to destruction; unlock()/relock() in between are allowed. */
class VXCOMMON_EXPORT Lock
{
public:
    explicit Lock(Mutex& mutex)
        : m_mutex(&mutex)
    {
        m_mutex->lock();
        m_locked = true;
    }
    explicit Lock(Mutex* mutex)
        : m_mutex(mutex)
    {
        if (m_mutex) {
            m_mutex->lock();
            m_locked = true;
        }
    }
    ~Lock()
    {
        if (m_locked)
            m_mutex->unlock();
    }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

    void unlock()
    {
        if (m_locked) {
            m_mutex->unlock();
            m_locked = false;
        }
    }
    void relock()
    {
        if (!m_locked && m_mutex) {
            m_mutex->lock();
            m_locked = true;
        }
    }
    bool isLocked() const { return m_locked; }

private:
    Mutex* m_mutex;
    bool m_locked = false;
};

} // namespace veltrax
