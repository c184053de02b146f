// SPDX-License-Identifier: MIT
// Runs with TZ=Europe/Amsterdam so local and UTC differ by one or two hours.
#include "timeconversions.h"

#include <QRegularExpression>
#include <QTest>

class TimeConversionsTest : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void createQTimeIsUtcArithmetic_data()
    {
        QTest::addColumn<qint64>("stamp");
        QTest::addColumn<QTime>("expected");
        QTest::newRow("1d 1h 1m 1s 1ms") << qint64(90061001) << QTime(1, 1, 1, 1);
        QTest::newRow("epoch") << qint64(0) << QTime(0, 0, 0, 0);
        QTest::newRow("last ms of day") << qint64(86399999) << QTime(23, 59, 59, 999);
        QTest::newRow("2021-03-04T05:06:07.089Z") << qint64(1614834367089) << QTime(5, 6, 7, 89);
        QTest::newRow("negative is invalid") << qint64(-1) << QTime();
    }
    void createQTimeIsUtcArithmetic()
    {
        QFETCH(qint64, stamp);
        QFETCH(QTime, expected);
        const QTime t = createQTime(stamp);
        QCOMPARE(t.isValid(), expected.isValid());
        if (expected.isValid()) {
            QCOMPARE(t, expected);
            QCOMPARE(createTimeStamp(expected), VxTimeStamp(stamp % 86400000)); // and back
        }
    }

    void dateTimeIsLocal()
    {
        // 1 ms before midnight UTC on 2021-06-30 is 01:59:59.999 on 2021-07-01 in Amsterdam.
        const VxTimeStamp stamp = 1625097599999;
        const QDateTime dt = createQDateTime(stamp);
        QCOMPARE(dt.date(), QDate(2021, 7, 1));
        QCOMPARE(dt.time(), QTime(1, 59, 59, 999));
        QCOMPARE(createQDate(stamp), QDate(2021, 7, 1));
        QCOMPARE(createTimeStamp(dt), stamp);
        QCOMPARE(createTimeStamp(QDate(2021, 7, 1)), VxTimeStamp(1625090400000)); // local midnight = 22:00Z
    }

    void thirtyTwoBitRangeEnds_data()
    {
        QTest::addColumn<QDateTime>("dateTime");
        QTest::addColumn<bool>("converts");
        QTest::newRow("epoch") << QDateTime(QDate(1970, 1, 1), QTime(0, 0), Qt::UTC) << true;
        QTest::newRow("last representable millisecond") << QDateTime::fromMSecsSinceEpoch(4294967295999LL, Qt::UTC) << true;
        QTest::newRow("past 2106") << QDateTime::fromSecsSinceEpoch(4294967296LL, Qt::UTC) << false;
        QTest::newRow("before 1970") << QDateTime(QDate(1969, 12, 31), QTime(23, 59), Qt::UTC) << false;
    }
    void thirtyTwoBitRangeEnds()
    {
        QFETCH(QDateTime, dateTime);
        QFETCH(bool, converts);
        const VxTimeStamp stamp = createTimeStamp(dateTime);
        if (converts) {
            QCOMPARE(stamp, dateTime.toMSecsSinceEpoch());
            QCOMPARE(createQDateTime(stamp), dateTime);
        } else {
            QCOMPARE(stamp, VxTimeStamp(uint(-1)) * 1000 + dateTime.time().msec()); // toTime_t() gives (uint)-1
        }
    }

    void nowFunctionsHaveTheirShapes()
    {
        const QRegularExpression shape(QStringLiteral("^\\d\\d:\\d\\d:\\d\\d\\.\\d\\d\\d$"));
        for (int i = 0; i < 50; ++i)
            QVERIFY(shape.match(xqLogTime()).hasMatch());
        QVERIFY(xqDateNow().isValid());
        QVERIFY(qAbs(xqDateTimeNow().toMSecsSinceEpoch() - QDateTime::currentMSecsSinceEpoch()) < 5000);
        // xqTimeNow is UTC clock time.
        const int diff = xqTimeNow().msecsTo(QDateTime::currentDateTimeUtc().time());
        QVERIFY(qAbs(diff) < 5000 || qAbs(diff) > 86395000);
    }
};

QTEST_GUILESS_MAIN(TimeConversionsTest)
#include "timeconversionstest.moc"
