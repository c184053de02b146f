// SPDX-License-Identifier: MIT
#include "mutex.h"

namespace veltrax
{

void Mutex::lock()
{
    m_mutex.lock();
    m_owner.store(std::this_thread::get_id(), std::memory_order_release);
    m_count.fetch_add(1, std::memory_order_acq_rel);
}

bool Mutex::tryLock()
{
    if (!m_mutex.try_lock())
        return false;
    m_owner.store(std::this_thread::get_id(), std::memory_order_release);
    m_count.fetch_add(1, std::memory_order_acq_rel);
    return true;
}

void Mutex::unlock()
{
    // Only the owner may unlock; the fields are cleared before the last release so the
    // next owner never sees them reset behind its back.
    if (m_count.fetch_sub(1, std::memory_order_acq_rel) == 1)
        m_owner.store(std::thread::id(), std::memory_order_release);
    m_mutex.unlock();
}

} // namespace veltrax
