// SPDX-License-Identifier: MIT
//
// Release labels: the internal "v1_2_3" form, its conversions, and the numeric order in
// which the window lists releases.
#include "autoupdate.h"

#include <QtTest>

#include <algorithm>

class AutoUpdateVersionTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void fromInternalVersionReadsOnlyWholeLabels_data()
    {
        QTest::addColumn<QString>("label");
        QTest::addColumn<QString>("expected");

        const auto row = [](const char* name, const char* label, const char* expected) {
            QTest::newRow(name) << label << expected;
        };
        row("plain", "v1_2_3", "1.2.3");
        row("leading zeros", "v2021_00_02", "2021.0.2");
        row("beyond 32 bits reads as 0", "v2147483648_5_6", "0.5.6");
        row("missing part", "v1_2", "0.0.0");
        row("no v", "1_2_3", "0.0.0");
        row("upper-case V", "V1_2_3", "0.0.0");
        row("trailing blank", "v1_2_3 ", "0.0.0");
        row("leading blank", " v1_2_3", "0.0.0");
        row("second line", "v1_2_3\nv4_5_6", "0.0.0");
        row("sign", "v1_-2_3", "0.0.0");
    }
    void fromInternalVersionReadsOnlyWholeLabels()
    {
        QFETCH(QString, label);
        QFETCH(QString, expected);

        const VxVersion v = AutoUpdate::fromInternalVersion(label);
        QCOMPARE(QStringLiteral("%1.%2.%3").arg(v.major()).arg(v.minor()).arg(v.revision()), expected);
        QCOMPARE(v.build(), 0);
    }
    void toInternalVersionDropsBuildAndExtra()
    {
        QCOMPARE(AutoUpdate::toInternalVersion(VxVersion(2021, 0, 2, 13, 4711, "rc1")), QStringLiteral("v2021_0_2"));
        QCOMPARE(AutoUpdate::toInternalVersion(VxVersion(3, 10, 0)), QStringLiteral("v3_10_0"));
    }
    // The natural (text) order of versions() is checked in autoupdatetest's refresh table.
    void displayOrderIsNumeric_data()
    {
        QTest::addColumn<QStringList>("labels");
        QTest::addColumn<QStringList>("displayOrder");

        QTest::newRow("ten and nine") << QStringList {"v3_10_0", "v3_9_0"} << QStringList {"v3_9_0", "v3_10_0"};
        QTest::newRow("major, then minor, then revision")
            << QStringList {"v2_0_0", "v1_2_10", "v10_0_0", "v1_2_9"} << QStringList {"v1_2_9", "v1_2_10", "v2_0_0", "v10_0_0"};
        QTest::newRow("malformed labels") << QStringList {"v0_0_1", "V9_0_0"} << QStringList {"V9_0_0", "v0_0_1"};
    }
    void displayOrderIsNumeric()
    {
        QFETCH(QStringList, labels);
        QFETCH(QStringList, displayOrder);

        QList<AutoUpdate::Version> list;
        for (const QString& label : labels) {
            list.append(AutoUpdate::Version());
            list.last().internalVersion = label;
        }
        std::sort(list.begin(), list.end(), &AutoUpdate::displayLessThan);
        QStringList sorted;
        for (const AutoUpdate::Version& v : qAsConst(list))
            sorted.append(v.internalVersion);
        QCOMPARE(sorted, displayOrder);
    }
};

QTEST_GUILESS_MAIN(AutoUpdateVersionTest)
#include "autoupdateversiontest.moc"
