// SPDX-License-Identifier: MIT
// The update server dying after it received the usage logs but before it acknowledged
// them: the logs must stay on disk byte for byte and the day must not count as sent, so
// that the next sending hands them over again.
#include "abstractusagestatisticssingleton.h"
#include "scriptedtlsserver.h"
#include "testcertificates.h"
#include "testhelpers.h"
#include "updateserverprocess.h"

#include <QDate>
#include <QDir>
#include <QFile>
#include <QSettings>
#include <QTest>
#include <QTimer>

#include <memory>

namespace
{
constexpr int kWait = 15000;

class TestUsage : public AbstractUsageStatisticsSingleton
{
public:
    QString logFilePrefix() override { return QStringLiteral("FaultApp_"); }
    QString openingEvent() override { return QStringLiteral("AppStarted"); }
    QString closingEvent() override { return QStringLiteral("AppClosed"); }
    QString extraHeaderText() override { return QString(); }
};

QString sentOn()
{
    QSettings settings;
    settings.beginGroup(QStringLiteral("UsageStatistics"));
    return settings.value(QStringLiteral("UsageDataWasSentOn")).toString();
}

// File name -> bytes of this application's logs.
QMap<QString, QByteArray> logsIn(const QString& dir)
{
    QMap<QString, QByteArray> logs;
    const QStringList names = QDir(dir).entryList({QStringLiteral("FaultApp_*")}, QDir::Files, QDir::Name);
    for (const QString& name : names)
        logs.insert(name, readFile(QDir(dir).filePath(name)));
    return logs;
}

// Two finished logs of earlier runs and the log of this run, which is being written.
void writeEarlierRuns(TestUsage& usage)
{
    for (int run = 0; run < 2; ++run) {
        QTest::qWait(2); // distinct millisecond stamps in the names
        TestUsage earlier;
        earlier.recreateLogFile();
        earlier.logUseEvent(QStringLiteral("Export %1").arg(run));
        earlier.logUseEvent(earlier.closingEvent());
    }
    QTest::qWait(2);
    usage.recreateLogFile();
}
}

class UsageFaultTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        if (UpdateServerProcess::program().isEmpty())
            QSKIP("the reference update server is not built");
        QVERIFY2(m_certificates.create(), qPrintable(m_certificates.errorString()));
        trustCertificateAuthority(m_certificates.caCertificate());
    }

    void init() { isolateSettings(); }

    void serverStoppedBeforeAcknowledgingKeepsTheLogs()
    {
        // A real server that reads the record and is stopped before it answers.
        UpdateServerProcess silent(&m_certificates);
        silent.setExtraArguments({QStringLiteral("--never-answer")});
        QVERIFY2(silent.start(), qPrintable(silent.errorString()));

        TestUsage usage;
        writeEarlierRuns(usage);
        const QMap<QString, QByteArray> before = logsIn(usage.logDirectory());
        QCOMPARE(before.size(), 3);

        usage.startSendingUsageData(silent.options());
        QVERIFY(silent.process().waitForOutputLine(QStringLiteral(" USAGE "), kWait));
        QVERIFY(silent.stop());
        usage.terminateServerConnection(kWait);

        QCOMPARE(logsIn(usage.logDirectory()), before);
        QCOMPARE(sentOn(), QString());

        // The next sending, to a server that acknowledges, hands them over after all.
        UpdateServerProcess working(&m_certificates);
        QVERIFY2(working.start(), qPrintable(working.errorString()));
        usage.startSendingUsageData(working.options());
        usage.terminateServerConnection(kWait);
        QCOMPARE(sentOn(), QDate::currentDate().toString(Qt::TextDate));
        QCOMPARE(logsIn(usage.logDirectory()).size(), 1); // only the log being written
    }

    void connectionResetAfterTheRecordKeepsTheLogs()
    {
        // A server process that crashes once the record is in looks like a reset
        // connection to the client.
        ScriptedTlsServer server(m_certificates.serverCertificate(), m_certificates.serverKey());
        QVERIFY(server.listenOnLoopback());
        QByteArray record;
        QTimer watch; // looks at what has arrived so far
        watch.setInterval(1);
        connect(&watch, &QTimer::timeout, this, [&] {
            // "USAGE <length> " then the tree.
            const QByteArray received = server.received();
            const int firstSpace = received.indexOf(' ');
            const int secondSpace = received.indexOf(' ', firstSpace + 1);
            if (firstSpace < 0 || secondSpace < 0)
                return;
            const int whole = secondSpace + 1 + received.mid(firstSpace + 1, secondSpace - firstSpace - 1).toInt();
            if (received.size() >= whole) {
                watch.stop();
                record = received;
                if (QSslSocket* socket = server.lastConnection())
                    socket->abort();
            }
        });
        watch.start();

        TestUsage usage;
        writeEarlierRuns(usage);
        const QMap<QString, QByteArray> before = logsIn(usage.logDirectory());
        usage.startSendingUsageData(UpdateServerOptions {QStringLiteral("127.0.0.1"), server.serverPort()});
        QTRY_VERIFY_WITH_TIMEOUT(!record.isEmpty(), kWait);
        usage.terminateServerConnection(kWait);

        QVERIFY(record.startsWith("USAGE "));
        QCOMPARE(logsIn(usage.logDirectory()), before);
        QCOMPARE(sentOn(), QString());
    }

private:
    TestCertificates m_certificates;
};

QTEST_GUILESS_MAIN(UsageFaultTest)
#include "usagefaulttest.moc"
