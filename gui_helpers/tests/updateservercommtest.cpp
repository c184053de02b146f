// SPDX-License-Identifier: MIT
//
// The connection and its requests against an in-process TLS server that writes scripted
// bytes: framing on the wire, replies split and merged across reads, broken streams,
// connection and certificate failures, termination, serialisation of requests, and the
// usage record.
#include "updateservercomm.h"
#include "journaller.h"
#include "scriptedtlsserver.h"
#include "settingsfile.h"
#include "testcertificates.h"

#include <QDir>
#include <QFile>
#include <QPointer>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include <atomic>
#include <memory>
#include <mutex>

namespace
{

constexpr int kWait = 10000;

QByteArray frame(const QByteArray& word, const QByteArray& body)
{
    return word + ' ' + QByteArray::number(body.size()) + ' ' + body;
}

QByteArray treeBytes(const veltrax::SettingsFile& tree)
{
    VxByteArray bytes;
    tree.serialize(bytes);
    return QByteArray(bytes.data(), static_cast<int>(bytes.size()));
}

veltrax::SettingsFile treeWith(const std::string& label, const std::string& value)
{
    veltrax::SettingsFile tree;
    tree.setSetting(label, veltrax::Variant(value));
    return tree;
}

std::string errorText(const veltrax::SettingsFile& tree, const char* key)
{
    return tree.setting(std::string("error.") + key).toStdString();
}

/** Collects request replies on the test's thread (they arrive queued). */
class ReplyCatcher : public QObject
{
    Q_OBJECT
public:
    QList<veltrax::SettingsFile> replies;
    void watch(ServerRequest* request) { connect(request, &ServerRequest::reply, this, &ReplyCatcher::take); }

public Q_SLOTS:
    void take(const veltrax::SettingsFile& tree) { replies.append(tree); }
};

/** Keeps what the subsystem logs, from any thread. */
class CapturingLogger : public AbstractAdditionalLogger
{
public:
    bool wantsLevel(JournalLogLevel) const override { return true; }
    void log(JournalLogLevel, int, const char*, const std::string& message) override
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        m_lines.append(QString::fromStdString(message));
    }
    QStringList lines() const
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        return m_lines;
    }
    bool contains(const QString& text) const
    {
        for (const QString& line : lines()) {
            if (line.contains(text))
                return true;
        }
        return false;
    }

private:
    mutable std::mutex m_mutex;
    QStringList m_lines;
};

} // namespace

class UpdateServerCommTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void requestLinesAreWrittenByteForByte_data();
    void requestLinesAreWrittenByteForByte();
    void listRoundTripDeliversTheTree();
    void errorReplyToList2BecomesAnErrorTree();
    void replyWordMustMatchTheRequest_data();
    void replyWordMustMatchTheRequest();
    void twoRepliesInOneReadLeaveTheSecond();
    void replyDribbledByteByByteIsParsedOnce();
    void largeReplyInManyReadsArrivesWhole();
    void bytesThatAreNoReplyAreDiscarded();
    void connectionDroppedMidReplyGivesEmptyTree();
    void replyTooLargeToHoldBreaksTheConnection();
    void noServerGivesCouldNotConnect();
    void untrustedCertificateIsRefusedAndExplained();
    void terminateEndsAWaitingRequest();
    void requestsAreServedOneAtATime();
    void destructorWaitsForARunningRequest();
    void usageRecordCarriesTheClosedLogsOnly();
    void usageRecordWithoutLogsHoldsAnEmptyTree();
    void terminatedUsageSendingSaysSo();
    void blockingCallOnTheConnectionsThreadIsRefused();
    void deviceStringsWrapTheIdentifierText();

private:
    /** A scripted server with the trusted certificate, listening on loopback. */
    std::unique_ptr<ScriptedTlsServer> makeServer(bool trusted = true);
    /** A connection to @p server, waited for until encrypted. */
    std::unique_ptr<UpdateServerComm> connectTo(ScriptedTlsServer& server);

    TestCertificates m_trusted;
    TestCertificates m_untrusted;
    CapturingLogger* m_logger = nullptr;
};

void UpdateServerCommTest::initTestCase()
{
    QVERIFY2(m_trusted.create(), qPrintable(m_trusted.errorString()));
    QVERIFY2(m_untrusted.create(), qPrintable(m_untrusted.errorString()));
    trustCertificateAuthority(m_trusted.caCertificate());
    qRegisterMetaType<size_t>("size_t");
    UpdateServerComm::setJournaller(nullptr);
}

void UpdateServerCommTest::init()
{
    m_logger = new CapturingLogger;
    Journaller::setAdditionalLogger(m_logger);
}

void UpdateServerCommTest::cleanup()
{
    Journaller::setAdditionalLogger(nullptr);
    // Request threads of a failed test may still log for a moment.
    QTest::qWait(20);
    delete m_logger;
    m_logger = nullptr;
}

std::unique_ptr<ScriptedTlsServer> UpdateServerCommTest::makeServer(bool trusted)
{
    TestCertificates& certs = trusted ? m_trusted : m_untrusted;
    auto server = std::make_unique<ScriptedTlsServer>(certs.serverCertificate(), certs.serverKey());
    if (!server->listenOnLoopback())
        return nullptr;
    return server;
}

std::unique_ptr<UpdateServerComm> UpdateServerCommTest::connectTo(ScriptedTlsServer& server)
{
    UpdateServerOptions options;
    options.serverAddress = QStringLiteral("127.0.0.1");
    options.port = server.serverPort();
    auto comm = std::make_unique<UpdateServerComm>(nullptr, options);
    QSignalSpy encrypted(&server, &ScriptedTlsServer::encryptedConnection);
    if (server.lastConnection() == nullptr && !encrypted.wait(kWait))
        return nullptr;
    return comm;
}

void UpdateServerCommTest::requestLinesAreWrittenByteForByte_data()
{
    QTest::addColumn<QString>("request");
    QTest::addColumn<QString>("id");
    QTest::addColumn<QString>("mask");
    QTest::addColumn<QString>("version");
    QTest::addColumn<QByteArray>("wire");

    QTest::newRow("list") << "list"
                          << "ProductA"
                          << "00FF0000" << QString() << QByteArray("LIST ProductA 00FF0000\n");
    QTest::newRow("list, empty mask") << "list"
                                      << "ProductA" << QString() << QString() << QByteArray("LIST ProductA \n");
    QTest::newRow("list2") << "list2"
                           << "M-0001000200000000"
                           << "M-FFFFFFFF00000000" << QString() << QByteArray("LIS2T M-0001000200000000 M-FFFFFFFF00000000\n");
    QTest::newRow("list2, empty id") << "list2" << QString() << "m" << QString() << QByteArray("LIS2T  m\n");
    QTest::newRow("get") << "get"
                         << "a"
                         << "b"
                         << "v2021_0_2" << QByteArray("GET a b v2021_0_2\n");
    QTest::newRow("get2") << "get2"
                          << "a"
                          << "b"
                          << "v1" << QByteArray("GE2T a b v1\n");
    QTest::newRow("get2, all empty") << "get2" << QString() << QString() << QString() << QByteArray("GE2T   \n");
    QTest::newRow("placeholders are not expanded twice") << "list"
                                                         << "%2"
                                                         << "%1" << QString() << QByteArray("LIST %2 %1\n");
    QTest::newRow("latin-1 text") << "list" << QString::fromUtf8("Caf\xc3\xa9") << "x" << QString() << QByteArray("LIST Caf\xe9 x\n");
}

void UpdateServerCommTest::requestLinesAreWrittenByteForByte()
{
    QFETCH(QString, request);
    QFETCH(QString, id);
    QFETCH(QString, mask);
    QFETCH(QString, version);
    QFETCH(QByteArray, wire);

    auto server = makeServer();
    QVERIFY(server);
    auto comm = connectTo(*server);
    QVERIFY(comm);
    if (request == QLatin1String("list"))
        comm->queueList(id, mask);
    else if (request == QLatin1String("list2"))
        comm->queueList2(id, mask);
    else if (request == QLatin1String("get"))
        comm->queueGet(id, mask, version);
    else
        comm->queueGet2(id, mask, version);
    QTRY_COMPARE_WITH_TIMEOUT(server->received(), wire, kWait);
}

void UpdateServerCommTest::listRoundTripDeliversTheTree()
{
    auto server = makeServer();
    QVERIFY(server);
    server->setResponder([](QSslSocket* socket, const QByteArray& line) {
        if (line.startsWith("LIST "))
            socket->write(frame("LIST", treeBytes(treeWith("ProductA.v2021_0_2.url", "https://example.invalid/a.exe"))));
    });
    auto comm = connectTo(*server);
    QVERIFY(comm);
    ReplyCatcher catcher;
    auto* request = new ServerListRequest(*comm, QStringLiteral("ProductA"), QString());
    catcher.watch(request);
    request->start();
    QTRY_COMPARE_WITH_TIMEOUT(catcher.replies.size(), 1, kWait);
    QCOMPARE(server->lines(), QList<QByteArray> {"LIST ProductA \n"});
    const veltrax::SettingsFile& tree = catcher.replies.first();
    QCOMPARE(tree.setting("ProductA.v2021_0_2.url").toStdString(), std::string("https://example.invalid/a.exe"));
    QVERIFY(!tree.hasSubTree("error"));
    QTRY_COMPARE_WITH_TIMEOUT(comm->requestCount(), 0, kWait);
}

void UpdateServerCommTest::errorReplyToList2BecomesAnErrorTree()
{
    auto server = makeServer();
    QVERIFY(server);
    server->setResponder([](QSslSocket* socket, const QByteArray&) {
        socket->write("ERROR 14 no such thing\n");
    });
    auto comm = connectTo(*server);
    QVERIFY(comm);
    ReplyCatcher catcher;
    auto* request = new ServerList2Request(*comm, QStringLiteral("M-0001"), QStringLiteral("M-FFFF"));
    catcher.watch(request);
    request->start();
    QTRY_COMPARE_WITH_TIMEOUT(catcher.replies.size(), 1, kWait);
    const veltrax::SettingsFile& tree = catcher.replies.first();
    QCOMPARE(errorText(tree, "message"), std::string("no such thing"));
    QCOMPARE(errorText(tree, "command"), std::string("LIS2T"));
    QCOMPARE(errorText(tree, "id"), std::string("M-0001"));
    QCOMPARE(errorText(tree, "mask"), std::string("M-FFFF"));
    QVERIFY(!tree.hasSetting("error.version"));
    QVERIFY(m_logger->contains(QStringLiteral("list2 Received ERROR instead of LIS2T")));
}

void UpdateServerCommTest::replyWordMustMatchTheRequest_data()
{
    QTest::addColumn<QString>("request");
    QTest::addColumn<QByteArray>("replyWord");
    QTest::addColumn<QString>("logLine");

    QTest::newRow("list answered with LIS2T") << "list" << QByteArray("LIS2T") << "list Received LIS2T instead of LIST";
    QTest::newRow("list2 answered with LIST") << "list2" << QByteArray("LIST") << "list2 Received LIST instead of LIS2T";
    QTest::newRow("get never accepts a reply") << "get" << QByteArray("GE2T") << "get Received GE2T instead of GET";
}

void UpdateServerCommTest::replyWordMustMatchTheRequest()
{
    QFETCH(QString, request);
    QFETCH(QByteArray, replyWord);
    QFETCH(QString, logLine);

    auto server = makeServer();
    QVERIFY(server);
    server->setResponder([replyWord](QSslSocket* socket, const QByteArray&) {
        socket->write(frame(replyWord, treeBytes(treeWith("a", "b"))));
    });
    auto comm = connectTo(*server);
    QVERIFY(comm);
    ReplyCatcher catcher;
    ServerRequest* r;
    if (request == QLatin1String("list"))
        r = new ServerListRequest(*comm, QStringLiteral("x"), QStringLiteral("y"));
    else if (request == QLatin1String("list2"))
        r = new ServerList2Request(*comm, QStringLiteral("x"), QStringLiteral("y"));
    else
        r = new ServerGetRequest(*comm, QStringLiteral("x"), QStringLiteral("y"), QStringLiteral("z"));
    catcher.watch(r);
    r->start();
    QTRY_COMPARE_WITH_TIMEOUT(catcher.replies.size(), 1, kWait);
    QCOMPARE(catcher.replies.first().size(), size_t(0));
    QVERIFY2(m_logger->contains(logLine), qPrintable(m_logger->lines().join(QLatin1Char('\n'))));
}

void UpdateServerCommTest::twoRepliesInOneReadLeaveTheSecond()
{
    auto server = makeServer();
    QVERIFY(server);
    server->setResponder([](QSslSocket* socket, const QByteArray&) {
        socket->write(frame("LIST", treeBytes(treeWith("which", "first"))) + frame("LIST", treeBytes(treeWith("which", "second"))));
    });
    auto comm = connectTo(*server);
    QVERIFY(comm);
    QSignalSpy progress(comm.get(), &UpdateServerComm::currentDownloadProgressChanged);
    ReplyCatcher catcher;
    auto* request = new ServerListRequest(*comm, QStringLiteral("p"), QString());
    catcher.watch(request);
    request->start();
    QTRY_COMPARE_WITH_TIMEOUT(catcher.replies.size(), 1, kWait);
    QCOMPARE(catcher.replies.first().setting("which").toStdString(), std::string("second"));
    QCOMPARE(progress.count(), 2);
}

void UpdateServerCommTest::replyDribbledByteByByteIsParsedOnce()
{
    auto server = makeServer();
    QVERIFY(server);
    server->setResponder([](QSslSocket* socket, const QByteArray&) {
        ScriptedTlsServer::dribble(socket, frame("GE2T", treeBytes(treeWith("firmware.L-03300000.versions", "v1_2_3"))), 1, 1);
    });
    auto comm = connectTo(*server);
    QVERIFY(comm);
    QSignalSpy progress(comm.get(), &UpdateServerComm::currentDownloadProgressChanged);
    ReplyCatcher catcher;
    auto* request = new ServerGet2Request(*comm, QStringLiteral("0330A1B2"), QStringLiteral("FFF00000"), QStringLiteral("v1"));
    catcher.watch(request);
    request->start();
    QTRY_COMPARE_WITH_TIMEOUT(catcher.replies.size(), 1, kWait);
    QCOMPARE(catcher.replies.first().setting("firmware.L-03300000.versions").toStdString(), std::string("v1_2_3"));
    // Only the decided reply reports progress, not each byte on its way.
    QCOMPARE(progress.count(), 1);
}

void UpdateServerCommTest::largeReplyInManyReadsArrivesWhole()
{
    QByteArray blob(1 << 20, '\0');
    for (int i = 0; i < blob.size(); ++i)
        blob[i] = static_cast<char>(i * 7 + (i >> 11));
    veltrax::SettingsFile big;
    big.setSetting("installer", veltrax::Variant(veltrax::BinaryObject(blob.constData(), static_cast<uint32_t>(blob.size()))));
    const QByteArray reply = frame("LIST", treeBytes(big));

    auto server = makeServer();
    QVERIFY(server);
    server->setResponder([reply](QSslSocket* socket, const QByteArray&) {
        ScriptedTlsServer::dribble(socket, reply, 16384, 0);
    });
    auto comm = connectTo(*server);
    QVERIFY(comm);
    QSignalSpy progress(comm.get(), &UpdateServerComm::currentDownloadProgressChanged);
    ReplyCatcher catcher;
    auto* request = new ServerListRequest(*comm, QStringLiteral("p"), QString());
    catcher.watch(request);
    request->start();
    QTRY_COMPARE_WITH_TIMEOUT(catcher.replies.size(), 1, kWait);
    const veltrax::BinaryObject received = catcher.replies.first().setting("installer").toBinaryObject();
    QCOMPARE(QByteArray(reinterpret_cast<const char*>(received.data()), static_cast<int>(received.size())), blob);
    QCOMPARE(progress.count(), 1);
}

void UpdateServerCommTest::bytesThatAreNoReplyAreDiscarded()
{
    auto server = makeServer();
    QVERIFY(server);
    server->setResponder([](QSslSocket* socket, const QByteArray&) {
        socket->write(QByteArray(40, '?'));
        socket->flush();
        QPointer<QSslSocket> guard(socket);
        QTimer::singleShot(150, socket, [guard] {
            if (guard)
                guard->write(frame("LIST", treeBytes(treeWith("ok", "yes"))));
        });
    });
    auto comm = connectTo(*server);
    QVERIFY(comm);
    ReplyCatcher catcher;
    auto* request = new ServerListRequest(*comm, QStringLiteral("p"), QString());
    catcher.watch(request);
    request->start();
    QTRY_COMPARE_WITH_TIMEOUT(catcher.replies.size(), 1, kWait);
    QCOMPARE(catcher.replies.first().setting("ok").toStdString(), std::string("yes"));
    QVERIFY(m_logger->contains(QStringLiteral("handleIncomingData Discarding 40 bytes")));
}

void UpdateServerCommTest::connectionDroppedMidReplyGivesEmptyTree()
{
    auto server = makeServer();
    QVERIFY(server);
    server->setResponder([](QSslSocket* socket, const QByteArray&) {
        socket->write(frame("LIST", treeBytes(treeWith("a", "b"))).left(12));
        socket->disconnectFromHost();
    });
    auto comm = connectTo(*server);
    QVERIFY(comm);
    ReplyCatcher catcher;
    auto* request = new ServerListRequest(*comm, QStringLiteral("p"), QString());
    catcher.watch(request);
    request->start();
    QTRY_COMPARE_WITH_TIMEOUT(catcher.replies.size(), 1, kWait);
    QCOMPARE(catcher.replies.first().size(), size_t(0));
    QVERIFY(!catcher.replies.first().hasSubTree("error"));
    QVERIFY(m_logger->contains(QStringLiteral("list Received CLOSED instead of LIST")));
}

void UpdateServerCommTest::replyTooLargeToHoldBreaksTheConnection()
{
    // Buffering a body of this size would exhaust memory long before it completed.
    auto server = makeServer();
    QVERIFY(server);
    server->setResponder([](QSslSocket* socket, const QByteArray&) {
        socket->write("LIST 99999999999 \x2a");
    });
    auto comm = connectTo(*server);
    QVERIFY(comm);
    ReplyCatcher catcher;
    auto* request = new ServerListRequest(*comm, QStringLiteral("p"), QString());
    catcher.watch(request);
    request->start();
    QTRY_COMPARE_WITH_TIMEOUT(catcher.replies.size(), 1, kWait);
    QCOMPARE(catcher.replies.first().size(), size_t(0));
    QVERIFY(m_logger->contains(QStringLiteral("handleIncomingData Reply of 99999999999 bytes exceeds the limit")));
}

void UpdateServerCommTest::noServerGivesCouldNotConnect()
{
    // A port that was free a moment ago: nothing answers there.
    quint16 port;
    {
        QTcpServer probe;
        QVERIFY(probe.listen(QHostAddress::LocalHost, 0));
        port = probe.serverPort();
    }
    UpdateServerOptions options;
    options.serverAddress = QStringLiteral("127.0.0.1");
    options.port = port;
    UpdateServerComm comm(nullptr, options);
    QCOMPARE(comm.serverString(), QStringLiteral("127.0.0.1:%1").arg(port));
    ReplyCatcher catcher;
    auto* request = new ServerGet2Request(comm, QStringLiteral("i"), QStringLiteral("m"), QStringLiteral("v"));
    catcher.watch(request);
    request->start();
    QTRY_COMPARE_WITH_TIMEOUT(catcher.replies.size(), 1, kWait);
    const veltrax::SettingsFile& tree = catcher.replies.first();
    QCOMPARE(errorText(tree, "message"), std::string("Could not connect to update server"));
    QCOMPARE(errorText(tree, "command"), std::string("GE2T"));
    QCOMPARE(errorText(tree, "version"), std::string("v"));
    QVERIFY(m_logger->contains(QStringLiteral("handleSocketStateChanged Failed to connect to update server at 127.0.0.1:%1").arg(port)));
}

void UpdateServerCommTest::untrustedCertificateIsRefusedAndExplained()
{
    auto server = makeServer(false);
    QVERIFY(server);
    UpdateServerOptions options;
    options.serverAddress = QStringLiteral("127.0.0.1");
    options.port = server->serverPort();
    UpdateServerComm comm(nullptr, options);
    ReplyCatcher catcher;
    auto* request = new ServerListRequest(comm, QStringLiteral("p"), QString());
    catcher.watch(request);
    request->start();
    QTRY_COMPARE_WITH_TIMEOUT(catcher.replies.size(), 1, kWait);

    const QString message = QString::fromStdString(errorText(catcher.replies.first(), "message"));
    const QString prefix = QStringLiteral("Certificate verification failed (SSL error)\n");
    QVERIFY2(message.startsWith(prefix), qPrintable(message));
    QVERIFY(message.endsWith(QLatin1Char('\n')));
    const QStringList errors = message.mid(prefix.size()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    QVERIFY(!errors.isEmpty());
    // Each error was logged with the server, in the same order, and nothing got through.
    const QString logPrefix = QStringLiteral("handleServerSocketSslErrors Error during communication with 127.0.0.1:%1: ").arg(server->serverPort());
    QStringList logged;
    for (const QString& line : m_logger->lines()) {
        if (line.startsWith(logPrefix))
            logged.append(line.mid(logPrefix.size()));
    }
    QCOMPARE(logged, errors);
    QVERIFY(server->lines().isEmpty());
}

void UpdateServerCommTest::terminateEndsAWaitingRequest()
{
    auto server = makeServer();
    QVERIFY(server);
    auto comm = connectTo(*server);
    QVERIFY(comm);
    ReplyCatcher catcher;
    auto* request = new ServerList2Request(*comm, QStringLiteral("p"), QStringLiteral("m"));
    catcher.watch(request);
    request->start();
    QTRY_COMPARE_WITH_TIMEOUT(server->lines().size(), 1, kWait);
    QTest::qWait(30);
    QCOMPARE(catcher.replies.size(), 0);
    comm->terminate();
    QTRY_COMPARE_WITH_TIMEOUT(catcher.replies.size(), 1, kWait);
    QCOMPARE(errorText(catcher.replies.first(), "message"), std::string("Terminated"));
    QCOMPARE(errorText(catcher.replies.first(), "command"), std::string("LIS2T"));
}

void UpdateServerCommTest::requestsAreServedOneAtATime()
{
    auto server = makeServer();
    QVERIFY(server);
    int outstanding = 0;
    bool overlapped = false;
    server->setResponder([&](QSslSocket* socket, const QByteArray& line) {
        if (++outstanding > 1)
            overlapped = true;
        const QByteArray id = line.split(' ').value(1);
        QPointer<QSslSocket> guard(socket);
        QTimer::singleShot(30, socket, [&, guard, id] {
            --outstanding;
            if (guard)
                guard->write(frame("LIST", treeBytes(treeWith("id", id.toStdString()))));
        });
    });
    auto comm = connectTo(*server);
    QVERIFY(comm);

    QMap<QString, std::string> answers;
    QObject receiver;
    for (int i = 0; i < 4; ++i) {
        const QString id = QStringLiteral("P%1").arg(i);
        auto* request = new ServerListRequest(*comm, id, QString());
        connect(request, &ServerRequest::reply, &receiver, [&answers, id](const veltrax::SettingsFile& tree) {
            answers[id] = tree.setting("id").toStdString();
        });
        request->start();
    }
    QTRY_COMPARE_WITH_TIMEOUT(answers.size(), 4, kWait);
    QVERIFY(!overlapped);
    for (auto it = answers.cbegin(); it != answers.cend(); ++it)
        QCOMPARE(QString::fromStdString(it.value()), it.key());
    QTRY_COMPARE_WITH_TIMEOUT(comm->requestCount(), 0, kWait);
}

void UpdateServerCommTest::destructorWaitsForARunningRequest()
{
    auto server = makeServer();
    QVERIFY(server);
    auto comm = connectTo(*server);
    QVERIFY(comm);
    auto replied = std::make_shared<std::atomic<bool>>(false);
    QPointer<ServerRequest> request = new ServerListRequest(*comm, QStringLiteral("p"), QString());
    connect(
        request.data(),
        &ServerRequest::reply,
        request.data(),
        [replied](const veltrax::SettingsFile&) {
            replied->store(true);
        },
        Qt::DirectConnection);
    request->start();
    QTRY_COMPARE_WITH_TIMEOUT(server->lines().size(), 1, kWait);
    QCOMPARE(comm->requestCount(), 1);

    comm.reset(); // returns only once the request has given up and lowered the count
    QVERIFY(replied->load());
    QTRY_VERIFY_WITH_TIMEOUT(request.isNull(), kWait); // and it deleted itself
}

void UpdateServerCommTest::usageRecordCarriesTheClosedLogsOnly()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const auto write = [&](const QString& name, const QByteArray& content) {
        QFile f(dir.filePath(name));
        QVERIFY(f.open(QIODevice::WriteOnly));
        f.write(content);
    };
    write(QStringLiteral("MyApp_usage_1.log"), "first run\n");
    write(QStringLiteral("MyApp_usage_2.log"), "second run\nline two\n");
    write(QStringLiteral("Other_usage_3.log"), "not ours\n");
    write(QStringLiteral("MyApp_usage_now.log"), "being written\n");
    QVERIFY(QDir().mkpath(dir.filePath(QStringLiteral("MyApp_usage_dir"))));

    auto server = makeServer();
    QVERIFY(server);
    auto comm = connectTo(*server);
    QVERIFY(comm);
    ReplyCatcher catcher;
    auto* request = new SendUsageDataToServer(*comm, dir.filePath(QStringLiteral("MyApp_usage_now.log")), QStringLiteral("MyApp_usage"));
    catcher.watch(request);
    request->start();

    // "USAGE <length> " and the tree; then acknowledge.
    QTRY_VERIFY_WITH_TIMEOUT(server->received().count(' ') >= 2, kWait);
    const QByteArray received0 = server->received();
    const int second = received0.indexOf(' ', 6);
    QVERIFY(received0.startsWith("USAGE "));
    const int length = received0.mid(6, second - 6).toInt();
    QTRY_COMPARE_WITH_TIMEOUT(server->received().size(), second + 1 + length, kWait);
    veltrax::SettingsFile logs;
    const QByteArray body = server->received().mid(second + 1);
    QCOMPARE(logs.deserialize(VxByteArray(body.constData(), static_cast<size_t>(body.size())), 0), length);
    server->lastConnection()->write("ACK 5 USAGE");

    QTRY_COMPARE_WITH_TIMEOUT(catcher.replies.size(), 1, kWait);
    QVERIFY(!catcher.replies.first().hasSubTree("error"));
    QCOMPARE(logs.size(), size_t(2));
    QCOMPARE(logs.setting("MyApp_usage_1").toBinaryObject().toStdString(), std::string("first run\n"));
    QCOMPARE(logs.setting("MyApp_usage_2").toBinaryObject().toStdString(), std::string("second run\nline two\n"));
}

void UpdateServerCommTest::usageRecordWithoutLogsHoldsAnEmptyTree()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    auto server = makeServer();
    QVERIFY(server);
    server->setResponder([](QSslSocket*, const QByteArray&) {});
    auto comm = connectTo(*server);
    QVERIFY(comm);
    ReplyCatcher catcher;
    auto* request = new SendUsageDataToServer(*comm, dir.filePath(QStringLiteral("App_1.log")), QStringLiteral("App_"));
    catcher.watch(request);
    request->start();
    const QByteArray expected = QByteArray("USAGE 5 ") + QByteArray::fromHex("2a00000000");
    QTRY_COMPARE_WITH_TIMEOUT(server->received(), expected, kWait);
    server->lastConnection()->write("ACK 11 USAGE taken");
    QTRY_COMPARE_WITH_TIMEOUT(catcher.replies.size(), 1, kWait);
    QVERIFY(catcher.replies.first().empty());
}

void UpdateServerCommTest::terminatedUsageSendingSaysSo()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    auto server = makeServer();
    QVERIFY(server);
    auto comm = connectTo(*server);
    QVERIFY(comm);
    ReplyCatcher catcher;
    auto* request = new SendUsageDataToServer(*comm, dir.filePath(QStringLiteral("App_1.log")), QStringLiteral("App_"));
    catcher.watch(request);
    request->start();
    QTRY_VERIFY_WITH_TIMEOUT(server->received().startsWith("USAGE "), kWait);
    comm->terminate();
    QTRY_COMPARE_WITH_TIMEOUT(catcher.replies.size(), 1, kWait);
    const veltrax::SettingsFile& tree = catcher.replies.first();
    QCOMPARE(errorText(tree, "message"), std::string("Sending of usage statistics was terminated by a T-800. Hasta la vista, baby"));
    QCOMPARE(errorText(tree, "command"), std::string("USAGE"));
    QVERIFY(!tree.hasSetting("error.id"));
}

void UpdateServerCommTest::blockingCallOnTheConnectionsThreadIsRefused()
{
    // Waiting here would starve the event loop that has to carry the reply.
    auto server = makeServer();
    QVERIFY(server);
    auto comm = connectTo(*server);
    QVERIFY(comm);
    const veltrax::SettingsFile tree = comm->get2(QStringLiteral("i"), QStringLiteral("m"), QStringLiteral("v"));
    QCOMPARE(errorText(tree, "message"), std::string("Blocking request on the connection's own thread"));
    QCOMPARE(errorText(tree, "command"), std::string("GE2T"));
    QVERIFY(m_logger->contains(QStringLiteral("get2 Blocking request on the connection's own thread refused")));
    QTest::qWait(20);
    QVERIFY(server->received().isEmpty());
}

void UpdateServerCommTest::deviceStringsWrapTheIdentifierText()
{
    const VxDeviceId legacy(0x0330A1B2u);
    QCOMPARE(updateserver::legacyDeviceString(legacy), QString::fromStdString(legacy.toString().toStdString()));
    QCOMPARE(updateserver::legacyDeviceString(legacy, QStringLiteral("<"), QStringLiteral(">")),
        QStringLiteral("<%1>").arg(QString::fromStdString(legacy.toString().toStdString())));
    const VxDeviceId modern(0x0001000212345678ull);
    QCOMPARE(updateserver::modernDeviceString(modern, QStringLiteral("p"), QStringLiteral("s")),
        QStringLiteral("p%1s").arg(QString::fromStdString(modern.toDeviceTypeString(true).toStdString())));
}

QTEST_GUILESS_MAIN(UpdateServerCommTest)
#include "updateservercommtest.moc"
