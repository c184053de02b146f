// SPDX-License-Identifier: MIT
#include "netmanager.h"

#include <QNetworkAccessManager>

#include <atomic>
#include <mutex>

namespace veltrax
{
namespace
{
std::atomic<int> gReferences {0};
std::atomic<QNetworkAccessManager*> gManager {nullptr};
// The count alone cannot keep a second handle from seeing the pointer before the first
// one has finished creating the manager, nor a new handle from racing the last one's
// delete; the transitions to and from zero therefore run under this mutex.
std::mutex gTransition;

void acquire()
{
    std::lock_guard<std::mutex> guard(gTransition);
    if (gReferences.fetch_add(1) == 0)
        gManager.store(new QNetworkAccessManager());
}

void release()
{
    QNetworkAccessManager* doomed = nullptr;
    {
        std::lock_guard<std::mutex> guard(gTransition);
        if (gReferences.fetch_sub(1) == 1)
            doomed = gManager.exchange(nullptr);
    }
    // Outside the mutex: deleting the manager deletes its replies, whose destruction may
    // run code that takes a handle of its own.
    delete doomed;
}
} // namespace

NetManager::NetManager()
{
    acquire();
}

NetManager::NetManager(const NetManager&)
{
    acquire();
}

NetManager& NetManager::operator=(const NetManager&)
{
    return *this;
}

NetManager::~NetManager()
{
    release();
}

QNetworkAccessManager* NetManager::operator->() const
{
    return gManager.load();
}

QNetworkAccessManager* NetManager::qman() const
{
    return gManager.load();
}

int NetManager::referenceCount()
{
    return gReferences.load();
}

} // namespace veltrax
