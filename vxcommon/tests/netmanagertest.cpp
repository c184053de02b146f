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
    void handlesShareOneManagerUntilTheLastGoes()
    {
        QCOMPARE(veltrax::NetManager::referenceCount(), 0);
        QPointer<QNetworkAccessManager> shared;
        {
            auto first = std::make_unique<veltrax::NetManager>();
            shared = first->qman();
            QVERIFY(shared);
            QVERIFY(!shared->parent());
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
        QCOMPARE(veltrax::NetManager::referenceCount(), 0);
    }

    void aManagerIsCreatedAgainAfterTheLastHandleWent()
    {
        QPointer<QNetworkAccessManager> before;
        {
            veltrax::NetManager handle;
            before = handle.qman();
        }
        QVERIFY(!before);
        veltrax::NetManager again;
        QVERIFY(again.qman());
    }

    void repliesParentedToTheManagerGoWithIt()
    {
        QPointer<QObject> child;
        {
            veltrax::NetManager handle;
            child = new QObject(handle.qman());
        }
        QVERIFY(!child);
    }
};

QTEST_GUILESS_MAIN(NetManagerTest)
#include "netmanagertest.moc"
