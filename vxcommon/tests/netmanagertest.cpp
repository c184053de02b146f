// SPDX-License-Identifier: MIT
#include "netmanager.h"

#include <QNetworkAccessManager>
#include <QPointer>
#include <QTest>

#include <memory>

class NetManagerTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void handlesShareOneManagerUntilTheLastGoesAndTakesItsChildren()
    {
        QCOMPARE(veltrax::NetManager::referenceCount(), 0);
        QPointer<QNetworkAccessManager> shared;
        QPointer<QObject> reply; // stands for a reply parented to the manager
        {
            auto first = std::make_unique<veltrax::NetManager>();
            shared = first->qman();
            QVERIFY(shared);
            QVERIFY(!shared->parent());
            reply = new QObject(shared);
            {
                veltrax::NetManager second;
                const veltrax::NetManager copy(second);
                QCOMPARE(second.qman(), shared.data());
                QCOMPARE(copy.operator->(), shared.data());
                QCOMPARE(veltrax::NetManager::referenceCount(), 3);
            }
            QVERIFY(shared);
            // The first handle is not the owner: the manager lives on with any handle.
            veltrax::NetManager last;
            first.reset();
            QVERIFY(shared);
            QCOMPARE(last.qman(), shared.data());
        }
        QVERIFY(!shared);
        QVERIFY(!reply);
        QCOMPARE(veltrax::NetManager::referenceCount(), 0);
        // After the last handle went, the next one makes a new manager.
        veltrax::NetManager again;
        QVERIFY(again.qman());
    }
};

QTEST_GUILESS_MAIN(NetManagerTest)
#include "netmanagertest.moc"
