// SPDX-License-Identifier: MIT
// The usage-data dialog and the about box's usage controls as real widgets offscreen, over
// real logs in isolated settings and data locations. What a sending carries and the policy's
// effect on logging and sending: usagestatisticssendingtest.
#include "aboutbox.h"
#include "testhelpers.h"
#include "usagedatadialog.h"
#include "usagestatisticsfixture.h"

#include <QCheckBox>
#include <QDir>
#include <QFileInfo>
#include <QLabel>
#include <QListWidget>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QScopeGuard>
#include <QtTest>

namespace
{
QStringList listedNames(const UsageDataDialog& dialog)
{
    const auto* list = dialog.findChild<QListWidget*>(QStringLiteral("usageLogList"));
    QStringList names;
    for (int i = 0; i < list->count(); ++i)
        names << list->item(i)->text();
    return names;
}
} // namespace

class UsageDataDialogTest : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { QCoreApplication::setApplicationName(QStringLiteral("UsageDialogTest")); }
    void init() { isolateSettings(); }

    void deleteKeepsTheLogBeingWritten_data()
    {
        QTest::addColumn<QVariant>("deleteLogFiles");
        QTest::newRow("deletion allowed") << QVariant();
        QTest::newRow("DeleteLogFiles forbids it after sending") << QVariant(false);
    }
    void deleteKeepsTheLogBeingWritten()
    {
        QFETCH(QVariant, deleteLogFiles);
        setUsageValue(QStringLiteral("DeleteLogFiles"), deleteLogFiles);
        const QString first = earlierRun({QStringLiteral("Export")}, true);
        const QString second = earlierRun({QStringLiteral("Plot")}, false);
        writeFile(usageLogDir() + QStringLiteral("OtherApp_x_1.log"), "not ours\n");
        QVERIFY(QDir().mkpath(usageLogDir() + QStringLiteral("Sent")));
        writeFile(usageLogDir() + QStringLiteral("Sent/TestApp_y_2.log"), "sent\n");
        QTest::qWait(2); // a name of its own for this run's log
        TestUsage usage;
        usage.recreateLogFile();

        UsageDataDialog dialog(&usage);
        QCOMPARE(dialog.objectName(), QStringLiteral("UsageDataDialog"));
        QCOMPARE(listedNames(dialog),
            QStringList({QStringLiteral("To be sent"), QFileInfo(first).fileName(), QFileInfo(second).fileName(), QStringLiteral("Already sent"),
                QStringLiteral("TestApp_y_2.log")}));
        // The first log is shown in full.
        QCOMPARE(dialog.findChild<QPlainTextEdit*>()->toPlainText().toUtf8(), readFile(first));

        dialog.findChild<QPushButton*>(QStringLiteral("deleteCollectedDataButton"))->click();
        QCOMPARE(logFiles(), QStringList({QStringLiteral("OtherApp_x_1.log"), QFileInfo(usage.logFilePath()).fileName()}));
        QVERIFY(!QFile::exists(usageLogDir() + QStringLiteral("Sent/TestApp_y_2.log")));
        QCOMPARE(listedNames(dialog), QStringList({QStringLiteral("To be sent"), QStringLiteral("(none)")}));
    }

    void consentInTheDialogIsTheUsersDecision()
    {
        TestUsage usage;
        usage.recreateLogFile();
        const QString firstLog = usage.logFilePath();
        UsageDataDialog dialog(&usage);
        auto* consent = dialog.findChild<QCheckBox*>(QStringLiteral("usageDataCheckbox"));
        QVERIFY(consent->isChecked() && consent->isEnabled());

        consent->click(); // withdrawn: stored, and this run's log is gone
        QCOMPARE(usageValue(QStringLiteral("AllowUsageLogsForUsers")), QStringLiteral("false"));
        QVERIFY(!QFile::exists(firstLog));
        consent->click(); // granted again: a new log with the opening event
        QCOMPARE(usageValue(QStringLiteral("AllowUsageLogsForUsers")), QStringLiteral("true"));
        QCOMPARE(eventsOf(usage.logFilePath()), QStringList {QStringLiteral("AppStarted")});
    }

    void policyDisablesBothCheckBoxes()
    {
        qputenv("VELTRAX_USAGE_STATISTICS", "off");
        const auto restore = qScopeGuard([] { qunsetenv("VELTRAX_USAGE_STATISTICS"); });
        const QString tip = QStringLiteral("Usage statistics are turned off by your organisation");
        TestUsage usage;

        AboutBox box;
        QSignalSpy gathering(&box, &AboutBox::allowUsageDataGathering);
        box.showUsageDataCheckbox(true, true);
        auto* aboutCheckbox = box.findChild<QCheckBox*>(QStringLiteral("usageDataCheckbox"));
        QVERIFY(!aboutCheckbox->isChecked() && !aboutCheckbox->isEnabled());
        QCOMPARE(aboutCheckbox->toolTip(), tip);
        QCOMPARE(gathering.count(), 0);

        UsageDataDialog dialog(&usage);
        auto* dialogCheckbox = dialog.findChild<QCheckBox*>(QStringLiteral("usageDataCheckbox"));
        QVERIFY(!dialogCheckbox->isChecked() && !dialogCheckbox->isEnabled());
        QCOMPARE(dialogCheckbox->toolTip(), tip);
        QCOMPARE(usageValue(QStringLiteral("AllowUsageLogsForUsers")), QStringLiteral("<absent>"));

        qunsetenv("VELTRAX_USAGE_STATISTICS"); // lifted: the about box is the user's again
        box.showUsageDataCheckbox(true, true);
        QVERIFY(aboutCheckbox->isChecked() && aboutCheckbox->isEnabled() && aboutCheckbox->toolTip().isEmpty());
    }

    void detailsLinkOpensTheDialogUnlessTheHostListens_data()
    {
        QTest::addColumn<bool>("hostListens");
        QTest::newRow("library's dialog") << false;
        QTest::newRow("host's own") << true;
    }
    void detailsLinkOpensTheDialogUnlessTheHostListens()
    {
        QFETCH(bool, hostListens);
        AboutBox box;
        auto* link = box.findChild<QLabel*>(QStringLiteral("usageDataDetailsLabel"));
        QVERIFY(!link->isVisibleTo(&box));
        box.showUsageDataDetailsLink(true);
        QVERIFY(link->isVisibleTo(&box));
        int requests = 0;
        if (hostListens)
            connect(&box, &AboutBox::usageDataDetailsRequested, this, [&requests] { ++requests; });
        Q_EMIT link->linkActivated(QStringLiteral("#usage-data"));
        QCOMPARE(requests, hostListens ? 1 : 0);
        QCOMPARE(box.findChildren<UsageDataDialog*>().size(), hostListens ? 0 : 1);
    }
};

QTEST_MAIN(UsageDataDialogTest)
#include "usagedatadialogtest.moc"
