// SPDX-License-Identifier: MIT
// Daily sending of usage logs, end to end against the reference update server over TLS on
// 127.0.0.1, with settings and logs kept apart per test and out of the real home.
#include "abstractusagestatisticssingleton.h"
#include "gui_helpers_config.h"
#include "testhelpers.h"
#include "updateservercomm.h"
#include "updateserverprocess.h"
#include "usagestatisticsfixture.h"

#include <QCoreApplication>
#include <QDate>
#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QSignalSpy>
#include <QFileInfo>
#include <QMap>
#include <QPointer>
#include <QScopeGuard>
#include <QSettings>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

namespace
{
const QString kSentOn = QStringLiteral("UsageDataWasSentOn");

QString day(int fromToday)
{
    return QDate::currentDate().addDays(fromToday).toString(Qt::TextDate);
}

// File name -> bytes of every file in @p dir.
QMap<QString, QByteArray> filesIn(const QString& dir)
{
    QMap<QString, QByteArray> files;
    const QStringList names = QDir(dir).entryList(QDir::Files, QDir::Name);
    for (const QString& name : names)
        files.insert(name, readFile(QDir(dir).filePath(name)));
    return files;
}

// What the server's inbox holds for @p tree: "<setting name>.log" -> the setting's bytes.
QMap<QString, QByteArray> asInbox(const veltrax::SettingsFile& tree)
{
    QMap<QString, QByteArray> files;
    for (const auto& entry : tree.settings())
        files.insert(QString::fromStdString(entry.first) + QStringLiteral(".log"), QByteArray::fromStdString(entry.second.toConstBinaryObject().toStdString()));
    return files;
}

QStringList fileNames(const QStringList& paths)
{
    QStringList names;
    for (const QString& path : paths)
        names << QFileInfo(path).fileName();
    return names;
}

void setAge(const QString& path, int days)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::Append));
    QVERIFY(file.setFileTime(QDateTime::currentDateTime().addDays(-days), QFileDevice::FileModificationTime));
}

int usageRequestsSeen(ServerProcess& process)
{
    return process.outputLines().filter(QStringLiteral(" USAGE ")).size();
}

// Earlier logs, another application's log and this run's log, which is being written.
struct Scene {
    QMap<QString, QByteArray> earlier; // file name -> bytes
    QString otherApplication;
    QString current;

    explicit Scene(TestUsage& usage)
    {
        for (const QString& path :
            {earlierRun({QStringLiteral("Export"), QStringLiteral("Plot")}, true), earlierRun({QString::fromUtf8("Gerät verbunden")}, false)})
            earlier.insert(QFileInfo(path).fileName(), readFile(path));
        otherApplication = usageLogDir() + QStringLiteral("OtherApp_someone_1600000000000.log");
        writeFile(otherApplication, "not ours\n");
        QTest::qWait(2);
        usage.recreateLogFile();
        usage.logUseEvent(QStringLiteral("Sending"));
        current = usage.logFilePath();
    }
};
} // namespace

class UsageStatisticsSendingTest : public QObject
{
    Q_OBJECT
private:
    TestCertificates m_certificates;
    QTemporaryDir m_systemScope;

    std::unique_ptr<UpdateServerProcess> startServer(const QStringList& extraArguments = {})
    {
        auto server = std::make_unique<UpdateServerProcess>(&m_certificates);
        server->setExtraArguments(extraArguments);
        if (!server->start()) {
            qWarning("%s", qPrintable(server->errorString()));
            return nullptr;
        }
        return server;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QCoreApplication::setApplicationName(QStringLiteral("UsageSendingTest"));
        QVERIFY(m_systemScope.isValid());
        QSettings::setPath(QSettings::NativeFormat, QSettings::SystemScope, m_systemScope.path());
        QVERIFY2(m_certificates.create(), qPrintable(m_certificates.errorString()));
    }

    void init() { isolateSettings(); }

    void overrideServerAndPort_data()
    {
        QTest::addColumn<QVariant>("address");
        QTest::addColumn<QVariant>("port");
        QTest::addColumn<QString>("expectedAddress");
        QTest::addColumn<int>("expectedPort");

        const QVariant absent;
        const QString builtIn = QStringLiteral(GUI_HELPERS_DEFAULT_UPDATE_SERVER);
        QTest::newRow("absent keys keep the caller's server") << absent << absent << "caller.example" << 4433;
        QTest::newRow("empty keys force the built-in server") << QVariant(QString()) << QVariant(QString()) << builtIn << 443;
        QTest::newRow("address only") << QVariant(QStringLiteral("override.example")) << absent << "override.example" << 4433;
        QTest::newRow("port only") << absent << QVariant(8443) << "caller.example" << 8443;
        QTest::newRow("port as text") << absent << QVariant(QStringLiteral("9443")) << "caller.example" << 9443;
        QTest::newRow("empty port, caller's address") << absent << QVariant(QString()) << "caller.example" << 443;
    }
    void overrideServerAndPort()
    {
        QFETCH(QVariant, address);
        QFETCH(QVariant, port);
        QFETCH(QString, expectedAddress);
        QFETCH(int, expectedPort);
        setUsageValue(QStringLiteral("OverrideServerAddress"), address);
        setUsageValue(QStringLiteral("OverrideServerPort"), port);

        QString actualAddress = QStringLiteral("caller.example");
        int actualPort = 4433;
        TestUsage().overrideServerAndPort(actualAddress, actualPort);
        QCOMPARE(actualAddress, expectedAddress);
        QCOMPARE(actualPort, expectedPort);
    }

    void sendsFinishedLogsOnceADay_data()
    {
        QTest::addColumn<QVariant>("lastSent");
        QTest::addColumn<bool>("throughOverride");
        QTest::addColumn<bool>("closeThisRunFirst");

        const QVariant never;
        QTest::newRow("never sent") << never << false << false;
        QTest::newRow("sent yesterday") << QVariant(day(-1)) << false << false;
        QTest::newRow("unreadable date") << QVariant(QStringLiteral("2021-03-04")) << false << false;
        QTest::newRow("server from the override keys") << never << true << false;
        QTest::newRow("this run's log closed before sending") << never << false << true;
    }
    void sendsFinishedLogsOnceADay()
    {
        QFETCH(QVariant, lastSent);
        QFETCH(bool, throughOverride);
        QFETCH(bool, closeThisRunFirst);

        auto server = startServer();
        QVERIFY(server);
        setUsageValue(kSentOn, lastSent);
        UpdateServerOptions options = server->options();
        if (throughOverride) {
            setUsageValue(QStringLiteral("OverrideServerAddress"), options.serverAddress);
            setUsageValue(QStringLiteral("OverrideServerPort"), options.port);
            options.port = closedLoopbackPort();
        }

        TestUsage usage;
        Scene scene(usage);
        if (closeThisRunFirst) {
            usage.logUseEvent(usage.closingEvent());
            scene.earlier.insert(QFileInfo(scene.current).fileName(), readFile(scene.current));
        }

        // The preview names exactly the logs that go, and its tree is what the server receives.
        QCOMPARE(fileNames(usage.pendingLogFiles()), QStringList(scene.earlier.keys()));
        const veltrax::SettingsFile preview = usage.pendingUsageData();

        QSignalSpy finished(&usage, &AbstractUsageStatisticsSingleton::usageDataSendingFinished);
        usage.startSendingUsageData(options);
        QTRY_COMPARE_WITH_TIMEOUT(usageValue(kSentOn), day(0), 20000);
        QCOMPARE(finished, (QList<QVariantList> {{true, QString()}}));

        // The finished logs arrived byte for byte and are gone here; the rest stayed.
        QCOMPARE(filesIn(server->inboxPath()), scene.earlier);
        QCOMPARE(filesIn(server->inboxPath()), asInbox(preview));
        for (auto it = scene.earlier.cbegin(); it != scene.earlier.cend(); ++it)
            QVERIFY2(!QFile::exists(usage.logDirectory() + it.key()), qPrintable(it.key()));
        QVERIFY(QFile::exists(scene.otherApplication));
        QCOMPARE(QFile::exists(scene.current), !closeThisRunFirst);
        QCOMPARE(usageRequestsSeen(server->process()), 1);

        // The same day again: nothing more is sent, over the connection already open.
        const QPointer<UpdateServerComm> connection = usage.findChild<UpdateServerComm*>();
        QVERIFY(connection);
        QString later = earlierRun({QStringLiteral("Later")}, true);
        usage.startSendingUsageData(options);
        QCOMPARE(usage.findChildren<UpdateServerComm*>().size(), 1);
        QTest::qWait(200);
        QCOMPARE(usageRequestsSeen(server->process()), 1);
        QVERIFY(QFile::exists(later));

        // A day later the open connection carries the next sending, and terminating waits
        // just until its reply has been handled.
        setUsageValue(kSentOn, day(-1));
        usage.startSendingUsageData(options);
        QVERIFY(connection);
        QCOMPARE(usage.findChildren<UpdateServerComm*>().size(), 1);
        usage.terminateServerConnection(30000);
        QCOMPARE(usageValue(kSentOn), day(0));
        QVERIFY(!QFile::exists(later));
        QCOMPARE(usageRequestsSeen(server->process()), 2);
        QVERIFY(!usage.findChild<UpdateServerComm*>());

        // After that, the next sending opens a connection of its own.
        setUsageValue(kSentOn, day(-1));
        later = earlierRun({QStringLiteral("EvenLater")}, true);
        const QByteArray laterBytes = readFile(later);
        usage.startSendingUsageData(options);
        QVERIFY(usage.findChild<UpdateServerComm*>());
        QTRY_COMPARE_WITH_TIMEOUT(usageValue(kSentOn), day(0), 20000);
        QCOMPARE(filesIn(server->inboxPath()).value(QFileInfo(later).fileName()), laterBytes);
        QVERIFY(!QFile::exists(later));
    }

    // A sending that does not succeed deletes nothing and stores no date.
    void failedSendingKeepsLogsAndDate_data()
    {
        QTest::addColumn<QStringList>("serverArguments");
        QTest::addColumn<int>("terminateMs"); // -1: the instance is destroyed instead
        QTest::addColumn<bool>("silent");
        QTest::addColumn<QString>("reason"); // of the refusal reported; empty: none is waited for
        QTest::newRow("server answers ERROR") << QStringList {"--answer-error", "Inbox full"} << 20000 << false << "Inbox full";
        QTest::newRow("silent server, terminate gives up") << QStringList {"--never-answer"} << 300 << true << QString();
        // Destruction does not wait for an outstanding sending.
        QTest::newRow("silent server, instance destroyed") << QStringList {"--never-answer"} << -1 << true << QString();
    }
    void failedSendingKeepsLogsAndDate()
    {
        QFETCH(QStringList, serverArguments);
        QFETCH(int, terminateMs);
        QFETCH(bool, silent);
        QFETCH(QString, reason);
        auto server = startServer(serverArguments);
        QVERIFY(server);
        setUsageValue(kSentOn, day(-1));
        auto* usage = new TestUsage;
        AbstractUsageStatisticsSingleton::gAbstractUsageStatisticsSingleton = usage;
        const Scene scene(*usage);
        QSignalSpy finished(usage, &AbstractUsageStatisticsSingleton::usageDataSendingFinished);

        usage->startSendingUsageData(server->options());
        QTRY_COMPARE_WITH_TIMEOUT(usageRequestsSeen(server->process()), 1, 10000);
        if (terminateMs >= 0) {
            QElapsedTimer elapsed;
            elapsed.start();
            usage->terminateServerConnection(terminateMs);
            QVERIFY(!usage->findChild<UpdateServerComm*>());
            if (silent)
                QVERIFY(elapsed.elapsed() >= terminateMs);
            QTest::qWait(100); // an abandoned request ends with an error meanwhile
        }
        // Whatever was reported is a refusal with a reason.
        for (const QVariantList& report : qAsConst(finished))
            QVERIFY(!report.at(0).toBool() && !report.at(1).toString().isEmpty());
        if (!reason.isEmpty())
            QVERIFY(finished.size() == 1 && finished.at(0).at(1).toString().contains(reason));
        AbstractUsageStatisticsSingleton::cleanup();
        QCOMPARE(AbstractUsageStatisticsSingleton::instance(), nullptr);

        QCOMPARE(usageValue(kSentOn), day(-1));
        for (auto it = scene.earlier.cbegin(); it != scene.earlier.cend(); ++it)
            QCOMPARE(readFile(usageLogDir() + it.key()), it.value());
        QVERIFY(QFile::exists(scene.current));
    }

    void nothingIsSentWithoutConsentOrTwiceADay_data()
    {
        QTest::addColumn<QVariant>("consent");
        QTest::addColumn<QVariant>("lastSent");
        QTest::addColumn<bool>("overrideKeys");

        QTest::newRow("already sent today") << QVariant() << QVariant(day(0)) << false;
        QTest::newRow("consent withdrawn") << QVariant(false) << QVariant() << false;
        QTest::newRow("consent withdrawn, override keys set") << QVariant(false) << QVariant() << true;
    }
    void nothingIsSentWithoutConsentOrTwiceADay()
    {
        QFETCH(QVariant, consent);
        QFETCH(QVariant, lastSent);
        QFETCH(bool, overrideKeys);

        // A plain listener: any connection attempt at all would show up here.
        QTcpServer listener;
        QVERIFY(listener.listen(QHostAddress::LocalHost));
        if (overrideKeys) {
            setUsageValue(QStringLiteral("OverrideServerAddress"), QStringLiteral("127.0.0.1"));
            setUsageValue(QStringLiteral("OverrideServerPort"), int(listener.serverPort()));
        }
        const QString earlier = earlierRun({QStringLiteral("Export")}, true);
        setUsageValue(QStringLiteral("AllowUsageLogsForUsers"), consent);
        setUsageValue(kSentOn, lastSent);
        TestUsage usage;
        usage.recreateLogFile();

        usage.startSendingUsageData({QStringLiteral("127.0.0.1"), listener.serverPort()});
        QVERIFY(!usage.findChild<UpdateServerComm*>());
        QTest::qWait(200);
        QVERIFY(!listener.hasPendingConnections());
        QVERIFY(QFile::exists(earlier));
        QCOMPARE(usageValue(kSentOn), lastSent.isValid() ? lastSent.toString() : QStringLiteral("<absent>"));
    }

    void keptSentLogsAreNotSentAgain()
    {
        auto server = startServer();
        QVERIFY(server);
        TestUsage usage;
        usage.setKeepSentLogs(7);
        const Scene scene(usage);
        const QString sent = usageLogDir() + QStringLiteral("Sent/");
        QVERIFY(QDir().mkpath(sent));
        for (const QString& name : {QStringLiteral("TestApp_old_1.log"), QStringLiteral("TestApp_recent_2.log"), QStringLiteral("OtherApp_old_3.log")}) {
            writeFile(sent + name, "copy\n");
            setAge(sent + name, name.contains(QLatin1String("recent")) ? 6 : 8);
        }

        usage.startSendingUsageData(server->options());
        QTRY_COMPARE_WITH_TIMEOUT(usageValue(kSentOn), day(0), 20000);
        QCOMPARE(filesIn(server->inboxPath()), scene.earlier);
        // Moved, not deleted; only this application's copy past the seven days is pruned.
        QMap<QString, QByteArray> expected = scene.earlier;
        expected.insert(QStringLiteral("TestApp_recent_2.log"), "copy\n");
        expected.insert(QStringLiteral("OtherApp_old_3.log"), "copy\n");
        QCOMPARE(filesIn(sent), expected);
        QCOMPARE(fileNames(usage.sentLogFiles()).size(), expected.size() - 1);
        QVERIFY(usage.pendingLogFiles().isEmpty());

        // The next day's sending carries nothing from "Sent".
        setUsageValue(kSentOn, day(-1));
        usage.startSendingUsageData(server->options());
        usage.terminateServerConnection(30000);
        QCOMPARE(usageRequestsSeen(server->process()), 2);
        QCOMPARE(filesIn(server->inboxPath()), scene.earlier);
        QCOMPARE(filesIn(sent), expected);
    }

    void organisationPolicy_data()
    {
        QTest::addColumn<QByteArray>("environment");
        QTest::addColumn<bool>("systemDisabled");
        QTest::addColumn<bool>("disabled");
        QTest::newRow("0") << QByteArray("0") << false << true;
        QTest::newRow("off") << QByteArray("off") << false << true;
        QTest::newRow("FALSE") << QByteArray("FALSE") << false << true;
        QTest::newRow("No") << QByteArray("No") << false << true;
        QTest::newRow("system scope Disabled=true") << QByteArray() << true << true;
        QTest::newRow("1 is no policy") << QByteArray("1") << false << false;
        QTest::newRow("nothing set") << QByteArray() << false << false;
    }
    void organisationPolicy()
    {
        QFETCH(QByteArray, environment);
        QFETCH(bool, systemDisabled);
        QFETCH(bool, disabled);
        const QString earlier = earlierRun({QStringLiteral("Export")}, true);
        const QStringList before = logFiles();
        setUsageValue(QStringLiteral("AllowUsageLogsForUsers"), QVariant());
        if (systemDisabled)
            QSettings(QSettings::SystemScope, QCoreApplication::organizationName(), QStringLiteral("UsageStatistics")).setValue(QStringLiteral("Disabled"), true);
        if (!environment.isEmpty())
            qputenv("VELTRAX_USAGE_STATISTICS", environment);
        const auto restore = qScopeGuard([] { qunsetenv("VELTRAX_USAGE_STATISTICS"); });

        QTcpServer listener; // any connection attempt would show up here
        QVERIFY(listener.listen(QHostAddress::LocalHost));
        TestUsage usage;
        QCOMPARE(AbstractUsageStatisticsSingleton::disabledByPolicy(), disabled);
        QCOMPARE(usage.firstTimeRunningUsage(), !disabled);
        QCOMPARE(usage.allowLogFilesForUser(), !disabled);
        usage.setAllowLogFilesForUser(true);
        QCOMPARE(usageValue(QStringLiteral("AllowUsageLogsForUsers")), disabled ? QStringLiteral("<absent>") : QStringLiteral("true"));
        usage.recreateLogFile();
        usage.logUseEvent(QStringLiteral("Export"));
        QCOMPARE(logFiles() == before, disabled);
        if (!disabled)
            return; // sending without a policy: sendsFinishedLogsOnceADay
        usage.startSendingUsageData({QStringLiteral("127.0.0.1"), listener.serverPort()});
        QVERIFY(!usage.findChild<UpdateServerComm*>());
        QTest::qWait(200);
        QVERIFY(!listener.hasPendingConnections());
        QVERIFY(QFile::exists(earlier));
    }
};

QTEST_GUILESS_MAIN(UsageStatisticsSendingTest)
#include "usagestatisticssendingtest.moc"
