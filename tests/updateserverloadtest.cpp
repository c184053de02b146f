// SPDX-License-Identifier: MIT
//
// The reference update server as a process under load and abuse: hundreds of TLS clients
// from this one thread, connections that never speak, clients that break the framing, and
// SIGTERM in the middle of it all. (Answers, faults and the command line of the server are
// checked in referenceupdateservertest.)
#include "certificateauthority.h"
#include "loadclient.h"
#include "settingsfile.h"
#include "testhelpers.h"
#include "updateserverprocess.h"

#include <QDir>
#include <QFile>
#include <QHostAddress>
#include <QRegularExpression>
#include <QSslConfiguration>
#include <QSslSocket>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>
#include <memory>
#include <vector>

namespace
{

constexpr int kWait = 20000;
#if defined(__SANITIZE_ADDRESS__)
// The sanitizer's allocator keeps freed memory in quarantine: resident memory says nothing.
constexpr bool kResidentMemoryMeansSomething = false;
#else
constexpr bool kResidentMemoryMeansSomething = true;
#endif
constexpr int kProducts = 4;

/** A field of /proc/<pid>/status in KiB, or -1. */
qint64 statusKiB(qint64 pid, const char* field)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    const QRegularExpression line(QStringLiteral("^%1:\\s+(\\d+) kB$").arg(QLatin1String(field)), QRegularExpression::MultilineOption);
    const QRegularExpressionMatch match = line.match(QString::fromLatin1(status.readAll()));
    return match.hasMatch() ? match.captured(1).toLongLong() : -1;
}

QByteArray frame(const QByteArray& word, const QByteArray& body)
{
    return word + ' ' + QByteArray::number(body.size()) + ' ' + body;
}

QByteArray serialized(const veltrax::SettingsFile& tree)
{
    VxByteArray bytes;
    tree.serialize(bytes);
    return QByteArray(bytes.data(), int(bytes.size()));
}

QByteArray usageRecord(const std::string& name, const QByteArray& log)
{
    veltrax::SettingsFile logs;
    logs.setSetting(name, veltrax::Variant(veltrax::BinaryObject(log.constData(), uint32_t(log.size()))));
    return frame("USAGE", serialized(logs));
}

} // namespace

class UpdateServerLoadTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void manyClientsAreAnsweredAndMemoryStaysFlat();
    void silentConnectionsNeitherBlockNorStay();
    void brokenFramingIsRefusedWithoutHarm_data();
    void brokenFramingIsRefusedWithoutHarm();
    void sigtermKeepsEveryAcknowledgedLog();

private:
    /** "LIST Product<n> mask" and the reply the catalogue gives it. */
    LoadClient::Exchange list(int n) const { return {"LIST Product" + QByteArray::number(n % kProducts) + " FF\n", m_replies.at(n % kProducts)}; }
    bool start(UpdateServerProcess& server, const QStringList& extra = QStringList())
    {
        server.setCatalogueFile(m_dir.filePath(QStringLiteral("catalogue.vxa")));
        server.setExtraArguments(extra);
        return server.start();
    }
    static qint64 kib(UpdateServerProcess& server, const char* field) { return statusKiB(server.process().processId(), field); }

    QTemporaryDir m_dir;
    CertificateAuthority m_ca;
    QVector<QByteArray> m_replies;
};

void UpdateServerLoadTest::initTestCase()
{
    if (UpdateServerProcess::program().isEmpty())
        QSKIP("the reference update server is not built");
    // Elliptic-curve keys: hundreds of handshakes on two shared cores are the test's cost.
    QVERIFY2(m_ca.create(m_dir.filePath(QStringLiteral("tls"))), qPrintable(m_ca.errorString()));
    // Only this CA: hundreds of handshakes need not each load the system's bundle.
    QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
    tls.setCaCertificates({m_ca.caCertificate()});
    QSslConfiguration::setDefaultConfiguration(tls);

    veltrax::SettingsFile catalogue;
    for (int p = 0; p < kProducts; ++p) {
        for (int v = 0; v <= p * 3; ++v) {
            const std::string release = "Product" + std::to_string(p) + ".Product" + std::to_string(p) + ".v2024_" + std::to_string(v) + "_0";
            catalogue.setSetting(release + ".url", veltrax::Variant("https://downloads.example.invalid/p" + std::to_string(p) + "-" + std::to_string(v)));
            catalogue.setSetting(release + ".date", veltrax::Variant(int64_t(1700000000) + v));
        }
    }
    const QString path = m_dir.filePath(QStringLiteral("catalogue.vxa"));
    catalogue.writeVxa(path.toStdString(), std::string(), "-");
    // The replies come from what the server reads, not from the tree in memory.
    veltrax::SettingsFile read;
    read.readVxaString(readFile(path).toStdString());
    for (int p = 0; p < kProducts; ++p)
        m_replies << frame("LIST", serialized(read.subTree("Product" + std::to_string(p))));
}

void UpdateServerLoadTest::manyClientsAreAnsweredAndMemoryStaysFlat()
{
    UpdateServerProcess server(&m_ca);
    QVERIFY2(start(server), qPrintable(server.errorString()));
    const auto script = [this](int requests) {
        return [this, requests](int client) {
            QVector<LoadClient::Exchange> exchanges;
            for (int r = 0; r < requests; ++r)
                exchanges << list(client + r);
            return exchanges;
        };
    };
    // The first round grows what TLS and the allocator keep for good; only growth after it
    // would be a leak.
    const LoadResult warmUp = runLoad(QStringLiteral("127.0.0.1"), server.port(), 200, script(1), kWait);
    QVERIFY2(warmUp.ok(), qPrintable(warmUp.failures.join(QLatin1Char('\n'))));
    QTest::qWait(200);
    const qint64 before = kib(server, "VmRSS");
    QVERIFY(before > 0);

    const LoadResult load = runLoad(QStringLiteral("127.0.0.1"), server.port(), 200, script(50), 45000);
    QVERIFY2(load.ok(), qPrintable(load.failures.join(QLatin1Char('\n'))));
    QCOMPARE(load.requests, qint64(200 * 50));
    if (!kResidentMemoryMeansSomething)
        return;
    QTRY_VERIFY2_WITH_TIMEOUT(
        kib(server, "VmRSS") <= before * 11 / 10, qPrintable(QStringLiteral("%1 KiB before, %2 KiB after").arg(before).arg(kib(server, "VmRSS"))), 5000);
}

void UpdateServerLoadTest::silentConnectionsNeitherBlockNorStay()
{
    UpdateServerProcess server(&m_ca);
    QVERIFY2(start(server, {"--idle-timeout", "10"}), qPrintable(server.errorString()));
    std::vector<std::unique_ptr<LoadClient>> silent;
    for (int i = 0; i < 500; ++i) {
        silent.emplace_back(new LoadClient(QStringLiteral("127.0.0.1"), server.port(), {}));
        silent.back()->connectToServer();
    }
    // One that never even starts the handshake.
    QTcpSocket mute;
    mute.connectToHost(QHostAddress::LocalHost, server.port());
    QTRY_VERIFY_WITH_TIMEOUT(std::all_of(silent.cbegin(),
                                 silent.cend(),
                                 [](const std::unique_ptr<LoadClient>& c) {
                                     return c->isEncrypted();
                                 }),
        kWait);

    LoadClient newcomer(QStringLiteral("127.0.0.1"), server.port(), {list(1)});
    QObject::connect(&newcomer, &LoadClient::encrypted, &newcomer, &LoadClient::runScript);
    newcomer.connectToServer();
    QTRY_VERIFY_WITH_TIMEOUT(newcomer.isDone(), 1000); // handshake and reply, within a second
    QCOMPARE(newcomer.failure(), QString());

    QTRY_VERIFY_WITH_TIMEOUT(std::all_of(silent.cbegin(),
                                 silent.cend(),
                                 [](const std::unique_ptr<LoadClient>& c) {
                                     return c->failure().startsWith(QLatin1String("closed by the server"));
                                 }),
        kWait);
    QTRY_COMPARE_WITH_TIMEOUT(mute.state(), QAbstractSocket::UnconnectedState, kWait);
}

void UpdateServerLoadTest::brokenFramingIsRefusedWithoutHarm_data()
{
    QTest::addColumn<QByteArray>("sent");
    QTest::addColumn<QByteArray>("error"); // the ERROR text answered
    QTest::addColumn<bool>("mayBeCutOff"); // the close may beat the answer to the client
    QTest::addColumn<bool>("closes");

    QTest::newRow("binary garbage line") << QByteArray("\x01\xff\x00\x7f garbage\r\n", 14) << QByteArray("Unknown command") << false << false;
    QTest::newRow("1 MiB line without a line feed") << QByteArray(1 << 20, 'L') << QByteArray("Request line too long") << true << true;
    QTest::newRow("usage record declaring 4 GiB") << QByteArray("USAGE 4294967296 \x01\x02\x03") << QByteArray("Usage record too large") << false << true;
    QTest::newRow("usage length with a sign") << QByteArray("USAGE +12 abc") << QByteArray("Bad usage record length") << false << true;
    QTest::newRow("usage length of 13 digits") << QByteArray("USAGE 1000000000000") << QByteArray("Bad usage record length") << false << true;
}

void UpdateServerLoadTest::brokenFramingIsRefusedWithoutHarm()
{
    QFETCH(QByteArray, sent);
    QFETCH(QByteArray, error);
    QFETCH(bool, mayBeCutOff);
    QFETCH(bool, closes);

    UpdateServerProcess server(&m_ca);
    QVERIFY2(start(server), qPrintable(server.errorString()));
    LoadClient bystander(QStringLiteral("127.0.0.1"), server.port(), {list(0), list(1)});
    bystander.connectToServer();
    QSslSocket abuser;
    abuser.connectToHostEncrypted(QStringLiteral("127.0.0.1"), server.port());
    QTRY_VERIFY_WITH_TIMEOUT(bystander.isEncrypted() && abuser.isEncrypted(), kWait);
    const qint64 peakBefore = kib(server, "VmPeak");

    abuser.write(sent);
    QByteArray answer;
    QObject::connect(&abuser, &QSslSocket::readyRead, [&] {
        answer += abuser.readAll();
    });
    const QRegularExpression errorReply(QStringLiteral("^ERROR (\\d+) "));
    const auto framedAnswer = [&] {
        const QRegularExpressionMatch m = errorReply.match(QString::fromLatin1(answer));
        return m.hasMatch() && answer.size() == m.capturedLength() + m.captured(1).toInt() && answer.endsWith('\n');
    };
    if (closes)
        QTRY_COMPARE_WITH_TIMEOUT(abuser.state(), QAbstractSocket::UnconnectedState, kWait);
    else
        QTRY_VERIFY_WITH_TIMEOUT(framedAnswer(), kWait);
    answer += abuser.readAll();
    if (!(mayBeCutOff && answer.isEmpty())) {
        QVERIFY2(framedAnswer(), answer.left(100).constData());
        QVERIFY2(answer.contains(error), answer.left(100).constData());
    }

    bystander.runScript();
    QTRY_VERIFY_WITH_TIMEOUT(bystander.isDone(), kWait);
    QCOMPARE(bystander.failure(), QString());
    // Reserving what a client declares would show in the address space at least.
    QVERIFY2(kib(server, "VmPeak") - peakBefore < 32 * 1024, qPrintable(QStringLiteral("VmPeak grew by %1 KiB").arg(kib(server, "VmPeak") - peakBefore)));
}

void UpdateServerLoadTest::sigtermKeepsEveryAcknowledgedLog()
{
    UpdateServerProcess server(&m_ca);
    QVERIFY2(start(server), qPrintable(server.errorString()));
    const QString inbox = server.inboxPath();

    constexpr int kSenders = 20;
    constexpr int kRecords = 10;
    const auto logName = [](int sender, int record) {
        return QStringLiteral("s%1_r%2").arg(sender).arg(record);
    };
    const auto logText = [](int sender, int record) {
        return randomBytes(2000 + sender * 100 + record, quint32(sender * 100 + record)).toBase64();
    };
    std::vector<std::unique_ptr<LoadClient>> clients;
    for (int s = 0; s < kSenders; ++s) {
        QVector<LoadClient::Exchange> records;
        for (int r = 0; r < kRecords; ++r)
            records << LoadClient::Exchange {usageRecord(logName(s, r).toStdString(), logText(s, r)), "ACK 5 USAGE"};
        clients.emplace_back(new LoadClient(QStringLiteral("127.0.0.1"), server.port(), records));
    }
    for (int i = 0; i < 50; ++i)
        clients.emplace_back(new LoadClient(QStringLiteral("127.0.0.1"), server.port(), {}));
    // A record that never completes, and a line that never ends.
    for (const QByteArray& stuck : {QByteArray("USAGE 100000 ") + QByteArray(5000, 'u'), QByteArray(3000, 'L')})
        clients.emplace_back(new LoadClient(QStringLiteral("127.0.0.1"), server.port(), {{stuck, "never"}}));
    for (size_t i = 0; i < clients.size(); ++i) {
        if (i < size_t(kSenders) || i >= clients.size() - 2)
            QObject::connect(clients[i].get(), &LoadClient::encrypted, clients[i].get(), &LoadClient::runScript);
        clients[i]->connectToServer();
    }

    const auto acknowledged = [&] {
        int total = 0;
        for (int s = 0; s < kSenders; ++s)
            total += clients[size_t(s)]->answered();
        return total;
    };
    QTRY_VERIFY_WITH_TIMEOUT(acknowledged() >= kSenders * kRecords / 4, kWait);
    QCOMPARE(::kill(pid_t(server.process().processId()), SIGTERM), 0);
    QTRY_VERIFY_WITH_TIMEOUT(!server.process().isRunning(), kWait);
    QVERIFY(server.process().stop()); // ended by itself, with exit code 0

    QStringList expected;
    for (int s = 0; s < kSenders; ++s) {
        for (int r = 0; r < clients[size_t(s)]->answered(); ++r)
            expected << logName(s, r) + QStringLiteral(".log");
    }
    // Acknowledged logs are there in full; a log stored but not yet acknowledged may be there
    // too, but in full as well, and nothing else is.
    const QStringList stored = QDir(inbox).entryList(QDir::Files | QDir::Hidden);
    for (const QString& name : expected)
        QVERIFY2(stored.contains(name), qPrintable(name));
    for (const QString& name : stored) {
        const QRegularExpressionMatch match = QRegularExpression(QStringLiteral("^s(\\d+)_r(\\d+)\\.log$")).match(name);
        QVERIFY2(match.hasMatch(), qPrintable(name));
        QVERIFY2(readFile(QDir(inbox).filePath(name)) == logText(match.captured(1).toInt(), match.captured(2).toInt()), qPrintable(name));
    }
}

QTEST_GUILESS_MAIN(UpdateServerLoadTest)
#include "updateserverloadtest.moc"
