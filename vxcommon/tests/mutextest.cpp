// SPDX-License-Identifier: MIT
#include "mutex.h"

#include <QTest>

#include <atomic>
#include <thread>

using veltrax::Lock;
using veltrax::Mutex;

class MutexTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void recordsOwnerAndRecursion()
    {
        Mutex m;
        QCOMPARE(m.owner(), std::thread::id());
        QCOMPARE(m.recursionCount(), 0);
        m.lock();
        m.lock();
        QVERIFY(m.tryLock());
        QCOMPARE(m.owner(), std::this_thread::get_id());
        QCOMPARE(m.recursionCount(), 3);
        QVERIFY(m.isLockedByCurrentThread());
        m.unlock();
        m.unlock();
        QCOMPARE(m.recursionCount(), 1);
        m.unlock();
        QCOMPARE(m.owner(), std::thread::id());
        QVERIFY(!m.isLockedByCurrentThread());
    }

    void otherThreadWaitsForLastUnlock()
    {
        Mutex m;
        m.lock();
        m.lock();
        std::atomic<bool> triedWhileHeld {true};
        std::thread([&] {
            triedWhileHeld = m.tryLock();
        }).join();
        QVERIFY(!triedWhileHeld);
        m.unlock();
        m.unlock();
        std::thread::id ownerSeen;
        std::thread([&] {
            Lock lock(m);
            ownerSeen = m.owner();
        }).join();
        QVERIFY(ownerSeen != std::this_thread::get_id());
        QCOMPARE(m.recursionCount(), 0);
    }

    void lockReleasesOnScopeExitAndRelocks()
    {
        Mutex m;
        {
            Lock lock(&m);
            QCOMPARE(m.recursionCount(), 1);
            lock.unlock();
            QVERIFY(!lock.isLocked());
            QCOMPARE(m.recursionCount(), 0);
            lock.relock();
            QCOMPARE(m.recursionCount(), 1);
        }
        QCOMPARE(m.recursionCount(), 0);
        Lock none(static_cast<Mutex*>(nullptr));
        QVERIFY(!none.isLocked());
    }
};

QTEST_GUILESS_MAIN(MutexTest)
#include "mutextest.moc"
