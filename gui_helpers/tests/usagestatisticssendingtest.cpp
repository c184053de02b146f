// SPDX-License-Identifier: MIT
// Daily sending of usage logs, end to end against the reference update server over TLS on
// 127.0.0.1. HOME points at a temporary directory and QStandardPaths runs in test mode;
// every test function gets an organisation name of its own.
#include "abstractusagestatisticssingleton.h"
#include "gui_helpers_config.h"
#include "settingsfile.h"
#include "updateservercomm.h"
#include "updateserverprocess.h"

#include <QCoreApplication>
#include <QDate>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QMap>
#include <QPointer>
#include <QRegularExpression>
#include <QSettings>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

namespace
{
class TestUsage : public AbstractUsageStatisticsSingleton
{
public:
    QString prefix = QStringLiteral("TestApp_");
    QString logFilePrefix() override { return prefix; }
    QString openingEvent() override { return QStringLiteral("AppStarted"); }
    QString closingEvent() override { return QStringLiteral("AppClosed"); }
    QString extraHeaderText() override { return QString(); }
};

QByteArray readAll(const QString& path)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return QByteArray("<unreadable>");
    return f.readAll();
}

QVariant usageValue(const QString& key)
{
    QSettings settings;
    settings.beginGroup(QStringLiteral("UsageStatistics"));
    return settings.value(key);
}

void setUsageValue(const QString& key, const QVariant& value)
{
    QSettings settings;
    settings.beginGroup(QStringLiteral("UsageStatistics"));
    if (value.isValid())
        settings.setValue(key, value);
    else
        settings.remove(key);
}

QString today()
{
    return QDate::currentDate().toString(Qt::TextDate);
}

// File name -> bytes of every file in @p dir.
QMap<QString, QByteArray> filesIn(const QString& dir)
{
    QMap<QString, QByteArray> files;
    const QStringList names = QDir(dir).entryList(QDir::Files, QDir::Name);
    for (const QString& name : names)
        files.insert(name, readAll(QDir(dir).filePath(name)));
    return files;
}

// The log of an earlier run of the application: created, used and ended by destruction.
QString earlierRun(const QStringList& events, bool withClosingEvent)
{
    QTest::qWait(2); // distinct millisecond stamps in the names
    TestUsage run;
    run.recreateLogFile();
    for (const QString& event : events)
        run.logUseEvent(event);
    if (withClosingEvent)
        run.logUseEvent(run.closingEvent());
    QString path = run.logFilePath();
    path.remove(QRegularExpression(QStringLiteral("_closed$")));
    return path;
}

int usageRequestsSeen(ServerProcess& process)
{
    int n = 0;
    const QStringList lines = process.outputLines();
    for (const QString& line : lines)
        n += line.contains(QLatin1String(" USAGE ")) ? 1 : 0;
    return n;
}

// A port on 127.0.0.1 where nothing listens.
int unusedPort()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost);
    return probe.serverPort();
}
} // namespace

class UsageStatisticsSendingTest : public QObject
{
    Q_OBJECT
private:
    QTemporaryDir m_home;
    TestCertificates m_certificates;
    int m_run = 0;

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

    // Earlier logs, another application's log and this run's log, which is being written.
    struct Scene {
        QMap<QString, QByteArray> earlier; // file name -> bytes
        QString otherApplication;
        QString current;
    };
    Scene makeScene(TestUsage& usage)
    {
        Scene scene;
        const QString a = earlierRun({QStringLiteral("Export"), QStringLiteral("Plot")}, true);
        const QString b = earlierRun({QString::fromUtf8("Gerät verbunden")}, false);
        scene.earlier.insert(QFileInfo(a).fileName(), readAll(a));
        scene.earlier.insert(QFileInfo(b).fileName(), readAll(b));
        scene.otherApplication = QFileInfo(a).absolutePath() + QStringLiteral("/OtherApp_someone_1600000000000.log");
        QFile other(scene.otherApplication);
        other.open(QIODevice::WriteOnly);
        other.write("not ours\n");
        other.close();
        QTest::qWait(2);
        usage.recreateLogFile();
        usage.logUseEvent(QStringLiteral("Sending"));
        scene.current = usage.logFilePath();
        return scene;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_home.isValid());
        qputenv("HOME", QFile::encodeName(m_home.path()));
        QStandardPaths::setTestModeEnabled(true);
        QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, m_home.filePath(QStringLiteral("settings")));
        QCoreApplication::setApplicationName(QStringLiteral("UsageSendingTest"));
        if (UpdateServerProcess::program().isEmpty())
            QSKIP("the reference update server is not built");
        QVERIFY2(m_certificates.create(), qPrintable(m_certificates.errorString()));
    }

    void init()
    {
        QCoreApplication::setOrganizationName(QStringLiteral("UsageSendingTestOrg%1").arg(++m_run));
        QVERIFY(QStandardPaths::writableLocation(QStandardPaths::DataLocation).startsWith(m_home.path()));
    }

    void overrideServerAndPort_data()
    {
        QTest::addColumn<QVariant>("address");
        QTest::addColumn<QVariant>("port");
        QTest::addColumn<QString>("expectedAddress");
        QTest::addColumn<int>("expectedPort");

        const QVariant absent;
        const QString builtIn = QStringLiteral(GUI_HELPERS_DEFAULT_UPDATE_SERVER);
        QTest::newRow("absent keys keep the caller's server") << absent << absent << "caller.example" << 4433;
        QTest::newRow("empty keys force the built-in server") << QVariant(QString()) << QVariant(QString()) << builtIn << GUI_HELPERS_DEFAULT_UPDATE_PORT;
        QTest::newRow("address only") << QVariant(QStringLiteral("override.example")) << absent << "override.example" << 4433;
        QTest::newRow("port only") << absent << QVariant(8443) << "caller.example" << 8443;
        QTest::newRow("port as text") << absent << QVariant(QStringLiteral("9443")) << "caller.example" << 9443;
        QTest::newRow("empty port, caller's address") << absent << QVariant(QString()) << "caller.example" << GUI_HELPERS_DEFAULT_UPDATE_PORT;
    }
    void overrideServerAndPort()
    {
        QFETCH(QVariant, address);
        QFETCH(QVariant, port);
        QFETCH(QString, expectedAddress);
        QFETCH(int, expectedPort);
        setUsageValue(QStringLiteral("OverrideServerAddress"), address);
        setUsageValue(QStringLiteral("OverrideServerPort"), port);

        TestUsage usage;
        QString actualAddress = QStringLiteral("caller.example");
        int actualPort = 4433;
        usage.overrideServerAndPort(actualAddress, actualPort);
        QCOMPARE(actualAddress, expectedAddress);
        QCOMPARE(actualPort, expectedPort);
    }

    void sendsFinishedLogsOnceADay_data()
    {
        QTest::addColumn<QVariant>("lastSent");
        QTest::addColumn<bool>("throughOverride");
        QTest::addColumn<bool>("closeThisRunFirst");

        const QVariant never;
        const QVariant yesterday = QDate::currentDate().addDays(-1).toString(Qt::TextDate);
        QTest::newRow("never sent") << never << false << false;
        QTest::newRow("sent yesterday") << yesterday << false << false;
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
        setUsageValue(QStringLiteral("UsageDataWasSentOn"), lastSent);
        UpdateServerOptions options = server->options();
        if (throughOverride) {
            setUsageValue(QStringLiteral("OverrideServerAddress"), options.serverAddress);
            setUsageValue(QStringLiteral("OverrideServerPort"), options.port);
            options.serverAddress = QStringLiteral("127.0.0.1");
            options.port = unusedPort();
        }

        TestUsage usage;
        Scene scene = makeScene(usage);
        if (closeThisRunFirst) {
            usage.logUseEvent(usage.closingEvent());
            scene.earlier.insert(QFileInfo(scene.current).fileName(), readAll(scene.current));
        }

        usage.startSendingUsageData(options);
        QTRY_COMPARE_WITH_TIMEOUT(usageValue(QStringLiteral("UsageDataWasSentOn")).toString(), today(), 20000);

        // The finished logs arrived byte for byte and are gone here; the rest stayed.
        QCOMPARE(filesIn(server->inboxPath()), scene.earlier);
        for (auto it = scene.earlier.cbegin(); it != scene.earlier.cend(); ++it)
            QVERIFY2(!QFile::exists(usage.logDirectory() + it.key()), qPrintable(it.key()));
        QVERIFY(QFile::exists(scene.otherApplication));
        QCOMPARE(QFile::exists(scene.current), !closeThisRunFirst);
        QCOMPARE(usageRequestsSeen(server->process()), 1);

        // The same day again: nothing more is sent, over the connection already open.
        const QPointer<UpdateServerComm> connection = usage.findChild<UpdateServerComm*>();
        QVERIFY(connection);
        const QString later = earlierRun({QStringLiteral("Later")}, true);
        usage.startSendingUsageData(options);
        QVERIFY(connection);
        QCOMPARE(usage.findChildren<UpdateServerComm*>().size(), 1);
        QTest::qWait(200);
        QCOMPARE(usageRequestsSeen(server->process()), 1);
        QVERIFY(QFile::exists(later));

        // A day later the open connection carries the next sending.
        setUsageValue(QStringLiteral("UsageDataWasSentOn"), QDate::currentDate().addDays(-1).toString(Qt::TextDate));
        usage.startSendingUsageData(options);
        QTRY_COMPARE_WITH_TIMEOUT(usageValue(QStringLiteral("UsageDataWasSentOn")).toString(), today(), 20000);
        QVERIFY(!QFile::exists(later));
        QCOMPARE(usageRequestsSeen(server->process()), 2);
        QVERIFY(connection);
        QCOMPARE(usage.findChildren<UpdateServerComm*>().size(), 1);

        usage.terminateServerConnection(0);
        QVERIFY(!usage.findChild<UpdateServerComm*>());
    }

    void errorReplyKeepsLogsAndDate()
    {
        auto server = startServer({QStringLiteral("--answer-error"), QStringLiteral("Inbox full")});
        QVERIFY(server);
        const QString yesterday = QDate::currentDate().addDays(-1).toString(Qt::TextDate);
        setUsageValue(QStringLiteral("UsageDataWasSentOn"), yesterday);

        TestUsage usage;
        const Scene scene = makeScene(usage);
        usage.startSendingUsageData(server->options());
        usage.terminateServerConnection(20000);

        QTRY_COMPARE_WITH_TIMEOUT(usageRequestsSeen(server->process()), 1, 5000);
        QCOMPARE(usageValue(QStringLiteral("UsageDataWasSentOn")).toString(), yesterday);
        for (auto it = scene.earlier.cbegin(); it != scene.earlier.cend(); ++it)
            QCOMPARE(readAll(usage.logDirectory() + it.key()), it.value());
        QVERIFY(QFile::exists(scene.current));
    }

    void nothingIsSentWithoutConsentOrTwiceADay_data()
    {
        QTest::addColumn<QVariant>("consent");
        QTest::addColumn<QVariant>("lastSent");
        QTest::addColumn<bool>("overrideKeys");

        QTest::newRow("already sent today") << QVariant() << QVariant(today()) << false;
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
        const UpdateServerOptions options {QStringLiteral("127.0.0.1"), listener.serverPort()};
        if (overrideKeys) {
            setUsageValue(QStringLiteral("OverrideServerAddress"), QStringLiteral("127.0.0.1"));
            setUsageValue(QStringLiteral("OverrideServerPort"), int(listener.serverPort()));
        }

        const QString earlier = earlierRun({QStringLiteral("Export")}, true);
        setUsageValue(QStringLiteral("AllowUsageLogsForUsers"), consent);
        setUsageValue(QStringLiteral("UsageDataWasSentOn"), lastSent);
        TestUsage usage;
        usage.recreateLogFile();

        usage.startSendingUsageData(options);
        QVERIFY(!usage.findChild<UpdateServerComm*>());
        QTest::qWait(200);
        QVERIFY(!listener.hasPendingConnections());
        QVERIFY(QFile::exists(earlier));
        QCOMPARE(usageValue(QStringLiteral("UsageDataWasSentOn")), lastSent);
    }

    void terminateReturnsOnceTheReplyIsHandled()
    {
        auto server = startServer({QStringLiteral("--delay"), QStringLiteral("100")});
        QVERIFY(server);
        TestUsage usage;
        const Scene scene = makeScene(usage);

        usage.startSendingUsageData(server->options());
        QElapsedTimer elapsed;
        elapsed.start();
        usage.terminateServerConnection(30000);

        // It came back because the reply was handled, not because the time ran out.
        QVERIFY(elapsed.elapsed() < 30000);
        QCOMPARE(usageValue(QStringLiteral("UsageDataWasSentOn")).toString(), today());
        QCOMPARE(filesIn(server->inboxPath()), scene.earlier);
        QVERIFY(!usage.findChild<UpdateServerComm*>());

        // On a later day the next sending opens a fresh connection.
        setUsageValue(QStringLiteral("UsageDataWasSentOn"), QDate::currentDate().addDays(-1).toString(Qt::TextDate));
        const QString later = earlierRun({QStringLiteral("Later")}, true);
        const QByteArray laterBytes = readAll(later);
        usage.startSendingUsageData(server->options());
        QVERIFY(usage.findChild<UpdateServerComm*>());
        usage.terminateServerConnection(30000);
        QCOMPARE(usageValue(QStringLiteral("UsageDataWasSentOn")).toString(), today());
        QCOMPARE(filesIn(server->inboxPath()).value(QFileInfo(later).fileName()), laterBytes);
        QVERIFY(!QFile::exists(later));
    }

    void terminateGivesUpOnASilentServer()
    {
        auto server = startServer({QStringLiteral("--never-answer")});
        QVERIFY(server);
        TestUsage usage;
        const Scene scene = makeScene(usage);

        usage.startSendingUsageData(server->options());
        QTRY_COMPARE_WITH_TIMEOUT(usageRequestsSeen(server->process()), 1, 10000);
        QElapsedTimer elapsed;
        elapsed.start();
        usage.terminateServerConnection(300);
        QVERIFY(elapsed.elapsed() >= 300);
        QVERIFY(!usage.findChild<UpdateServerComm*>());

        // The abandoned request ends with an error: nothing is deleted, no date is stored.
        QTest::qWait(100);
        QVERIFY(!usageValue(QStringLiteral("UsageDataWasSentOn")).isValid());
        for (auto it = scene.earlier.cbegin(); it != scene.earlier.cend(); ++it)
            QVERIFY(QFile::exists(usage.logDirectory() + it.key()));
    }

    void destructionDoesNotWaitForAnOutstandingSending()
    {
        auto server = startServer({QStringLiteral("--never-answer")});
        QVERIFY(server);
        auto* usage = new TestUsage;
        AbstractUsageStatisticsSingleton::gAbstractUsageStatisticsSingleton = usage;
        const Scene scene = makeScene(*usage);
        usage->startSendingUsageData(server->options());
        QTRY_COMPARE_WITH_TIMEOUT(usageRequestsSeen(server->process()), 1, 10000);

        AbstractUsageStatisticsSingleton::cleanup();
        QCOMPARE(AbstractUsageStatisticsSingleton::instance(), nullptr);
        for (auto it = scene.earlier.cbegin(); it != scene.earlier.cend(); ++it)
            QVERIFY(QFile::exists(QFileInfo(scene.current).absolutePath() + QLatin1Char('/') + it.key()));
    }
};

QTEST_GUILESS_MAIN(UsageStatisticsSendingTest)
#include "usagestatisticssendingtest.moc"
