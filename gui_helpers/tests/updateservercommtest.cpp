// SPDX-License-Identifier: MIT
//
// The connection and its requests against an in-process TLS server that writes scripted
// bytes: framing on the wire, replies split and merged across reads, broken streams,
// connection and certificate failures, termination, serialisation of requests, and the
// usage record.
#include "updateservercomm.h"
#include "scriptedtlsserver.h"
#include "serverrequests.h"
#include "settingsfile.h"
#include "testcertificates.h"
#include "testhelpers.h"

#include <QDir>
#include <QMap>
#include <QPointer>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include <atomic>
#include <memory>
#include <stdexcept>

namespace
{
constexpr int kWait = 10000;

QByteArray frame(const QByteArray& word, const veltrax::SettingsFile& tree)
{
    VxByteArray bytes;
    tree.serialize(bytes);
    return word + ' ' + QByteArray::number(qulonglong(bytes.size())) + ' ' + QByteArray(bytes.data(), int(bytes.size()));
}

/** One of the look-ups, by its name in a data table, for id "P1", mask "M1", version "v1". */
ServerRequest* lookup(UpdateServerComm& comm, const QString& kind)
{
    const QString id = QStringLiteral("P1"), mask = QStringLiteral("M1"), version = QStringLiteral("v1");
    if (kind == QLatin1String("list"))
        return new ServerListRequest(comm, id, mask);
    if (kind == QLatin1String("list2"))
        return new ServerList2Request(comm, id, mask);
    if (kind == QLatin1String("get"))
        return new ServerGetRequest(comm, id, mask, version);
    if (kind == QLatin1String("productKey"))
        return new ServerGetProductKeyRequest(comm, id, mask);
    if (kind == QLatin1String("customerInfo"))
        return new ServerGetCustomerDetailsRequest(comm, id, mask);
    return new ServerGet2Request(comm, id, mask, version);
}
} // namespace

class UpdateServerCommTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(m_trusted.create(), qPrintable(m_trusted.errorString()));
        QVERIFY2(m_untrusted.create(), qPrintable(m_untrusted.errorString()));
        trustCertificateAuthority(m_trusted.caCertificate());
        qRegisterMetaType<size_t>("size_t");
        UpdateServerComm::setJournaller(nullptr);
    }
    void init() { m_logger = std::make_unique<CapturingLogger>(); }
    void cleanup()
    {
        m_comm.reset();
        m_server.reset();
        m_logger.reset();
    }

    void requestLinesAreWrittenByteForByte_data()
    {
        QTest::addColumn<QString>("request");
        QTest::addColumn<QString>("id");
        QTest::addColumn<QString>("mask");
        QTest::addColumn<QString>("version");
        QTest::addColumn<QByteArray>("wire");

        const auto row = [](const char* name, const char* request, const QString& id, const char* mask, const char* version, const QByteArray& wire) {
            QTest::newRow(name) << request << id << mask << version << wire;
        };
        row("list", "list", "ProductA", "00FF0000", "", "LIST ProductA 00FF0000\n");
        row("list, empty mask", "list", "ProductA", "", "", "LIST ProductA \n");
        row("list2", "list2", "M-0001", "M-FFFF", "", "LIS2T M-0001 M-FFFF\n");
        row("list2, empty id", "list2", "", "m", "", "LIS2T  m\n");
        row("get", "get", "a", "b", "v2021_0_2", "GET a b v2021_0_2\n");
        row("get2", "get2", "a", "b", "v1", "GE2T a b v1\n");
        row("get2, all empty", "get2", "", "", "", "GE2T   \n");
        row("placeholders are not expanded twice", "list", "%2", "%1", "", "LIST %2 %1\n");
        row("latin-1 text", "list", QString::fromUtf8("Caf\xc3\xa9"), "x", "", "LIST Caf\xe9 x\n");
        row("product key", "productKey", "S-1234", "M-FF", "", "PRODUCTKEY S-1234 M-FF\n");
        row("customer info", "customerInfo", "S-1234", "", "", "CUSTOMERINFO S-1234 \n");
    }
    void requestLinesAreWrittenByteForByte()
    {
        QFETCH(QString, request);
        QFETCH(QString, id);
        QFETCH(QString, mask);
        QFETCH(QString, version);
        QFETCH(QByteArray, wire);

        QVERIFY(open());
        using Queue = void (UpdateServerComm::*)(const QString&, const QString&);
        const QMap<QString, Queue> withoutVersion {{"list", &UpdateServerComm::queueList},
            {"list2", &UpdateServerComm::queueList2},
            {"productKey", &UpdateServerComm::queueGetProductKey},
            {"customerInfo", &UpdateServerComm::queueGetCustomerInfo}};
        if (withoutVersion.contains(request))
            (m_comm.get()->*withoutVersion[request])(id, mask);
        else
            (m_comm.get()->*(request == QLatin1String("get") ? &UpdateServerComm::queueGet : &UpdateServerComm::queueGet2))(id, mask, version);
        QTRY_COMPARE_WITH_TIMEOUT(m_server->received(), wire, kWait);
    }
    // The server answers the request line with `reply`, in pieces of `pieceSize` bytes (0: in
    // one write) `intervalMs` apart.
    void scriptedReplyBecomesTheResult_data()
    {
        QTest::addColumn<QString>("request");
        QTest::addColumn<QByteArray>("reply");
        QTest::addColumn<int>("pieceSize");
        QTest::addColumn<int>("intervalMs");
        QTest::addColumn<veltrax::SettingsFile>("expected");
        QTest::addColumn<int>("progressReports"); // -1: not counted
        QTest::addColumn<QString>("logLine");

        const auto row = [](const char* name,
                             const char* request,
                             const QByteArray& reply,
                             const veltrax::SettingsFile& expected,
                             const char* logLine = "",
                             int progressReports = -1,
                             int pieceSize = 0,
                             int intervalMs = 0) {
            QTest::newRow(name) << request << reply << pieceSize << intervalMs << expected << progressReports << logLine;
        };
        const veltrax::SettingsFile empty;
        const veltrax::SettingsFile product = textTree({{"ProductA.v2021_0_2.url", "https://example.invalid/a.exe"}});
        row("list answered", "list", frame("LIST", product), product, "", 1);
        row("ERROR reply to list2",
            "list2",
            "ERROR 14 no such thing\n",
            textTree({{"error.message", "no such thing"}, {"error.command", "LIS2T"}, {"error.id", "P1"}, {"error.mask", "M1"}}),
            "list2 Received ERROR instead of LIS2T");
        row("list answered with LIS2T", "list", frame("LIS2T", product), empty, "list Received LIS2T instead of LIST");
        row("list2 answered with LIST", "list2", frame("LIST", product), empty, "list2 Received LIST instead of LIS2T");
        row("get accepts no reply", "get", frame("GE2T", product), empty, "get Received GE2T instead of GET");
        const veltrax::SettingsFile licence = textTree({{"licence.key", "ABCD-EFGH"}});
        row("product key answered", "productKey", frame("PRODUCTKEY", licence), licence);
        row("customer info answered", "customerInfo", frame("CUSTOMERINFO", licence), licence);
        row("product key answered with CUSTOMERINFO",
            "productKey",
            frame("CUSTOMERINFO", licence),
            empty,
            "getProductKey Received CUSTOMERINFO instead of PRODUCTKEY");
        row("ERROR reply to customer info",
            "customerInfo",
            "ERROR 11 no licence\n",
            textTree({{"error.message", "no licence"}, {"error.command", "CUSTOMERINFO"}, {"error.id", "P1"}, {"error.mask", "M1"}}),
            "getCustomerInfo Received ERROR instead of CUSTOMERINFO");
        const veltrax::SettingsFile second = textTree({{"which", "second"}});
        row("two replies in one read leave the second", "list", frame("LIST", textTree({{"which", "first"}})) + frame("LIST", second), second, "", 2);
        // Replies split over reads, large bodies and the reset after a drop: updateserverreplyassemblertest.
        // A drop at each byte of a reply, and the reconnection after it: updateserverclosetest.
        const veltrax::SettingsFile ok = textTree({{"ok", "yes"}});
        row("bytes that are no reply are discarded",
            "list",
            QByteArray(40, '?') + frame("LIST", ok),
            ok,
            "handleIncomingData Discarding 40 bytes",
            -1,
            40,
            150);
        // Buffering a body of this size would exhaust memory long before it completed.
        row("reply too large to hold", "list", "LIST 99999999999 *", empty, "handleIncomingData Reply of 99999999999 bytes exceeds the limit");
    }
    void scriptedReplyBecomesTheResult()
    {
        QFETCH(QString, request);
        QFETCH(QByteArray, reply);
        QFETCH(int, pieceSize);
        QFETCH(int, intervalMs);
        QFETCH(veltrax::SettingsFile, expected);
        QFETCH(int, progressReports);
        QFETCH(QString, logLine);

        QVERIFY(open());
        m_server->setResponder([=](QSslSocket* socket, const QByteArray&) {
            ScriptedTlsServer::dribble(socket, reply, pieceSize > 0 ? pieceSize : reply.size(), intervalMs, false);
        });
        QSignalSpy progress(m_comm.get(), &UpdateServerComm::currentDownloadProgressChanged);
        PendingReply pending(lookup(*m_comm, request));
        QVERIFY(pending.wait(kWait));
        const QString difference = treeDifference(pending.tree(), expected);
        QVERIFY2(difference.isEmpty(), qPrintable(difference));
        QCOMPARE(m_server->lines().size(), 1);
        if (progressReports >= 0)
            QCOMPARE(progress.count(), progressReports);
        if (!logLine.isEmpty())
            QVERIFY2(m_logger->contains(logLine), qPrintable(m_logger->lines().join(QLatin1Char('\n'))));
        QTRY_COMPARE_WITH_TIMEOUT(m_comm->requestCount(), 0, kWait);
    }
    void noServerGivesCouldNotConnect()
    {
        const quint16 port = closedLoopbackPort();
        UpdateServerComm comm(nullptr, UpdateServerOptions {QStringLiteral("127.0.0.1"), port});
        QCOMPARE(comm.serverString(), QStringLiteral("127.0.0.1:%1").arg(port));
        const auto tree = runRequest<ServerGet2Request>(comm, QStringLiteral("i"), QStringLiteral("m"), QStringLiteral("v"));
        const auto expected = textTree({{"error.message", "Could not connect to update server"},
            {"error.command", "GE2T"},
            {"error.id", "i"},
            {"error.mask", "m"},
            {"error.version", "v"}});
        QVERIFY2(treeDifference(tree, expected).isEmpty(), qPrintable(treeDifference(tree, expected)));
        // Logged as an alert, not an error.
        QVERIFY(!m_logger->lines(JLL_ALERT)
                     .filter(QStringLiteral("handleSocketStateChanged Failed to connect to update server at 127.0.0.1:%1").arg(port))
                     .isEmpty());
    }
    void requestQueuedBehindADroppedOneReturns()
    {
        // The first request is never answered and holds the lock; the second passes the
        // connection check and waits for the lock. Then the connection drops: the first is
        // released by the drop, the second sets its flag only afterwards and must not wait
        // for a reply that cannot come.
        QVERIFY(open());
        PendingReply first(new ServerListRequest(*m_comm, QStringLiteral("first"), QString()));
        QTRY_COMPARE_WITH_TIMEOUT(m_server->lines().size(), 1, kWait);
        PendingReply second(new ServerListRequest(*m_comm, QStringLiteral("second"), QString()));
        QTest::qWait(50); // lets the second request reach the lock (it also passes if it does not)
        m_server->lastConnection()->disconnectFromHost();
        QVERIFY(first.wait(kWait));
        QVERIFY(second.wait(kWait));
        QCOMPARE(first.tree().size(), size_t(0));
        QTRY_COMPARE_WITH_TIMEOUT(m_comm->requestCount(), 0, kWait);
    }
    void untrustedCertificateIsRefusedAndExplained()
    {
        QVERIFY(open(false, false));
        UpdateServerComm comm(nullptr, UpdateServerOptions {QStringLiteral("127.0.0.1"), m_server->serverPort()});
        const auto tree = runRequest<ServerListRequest>(comm, QStringLiteral("p"), QString());

        const QString message = QString::fromStdString(tree.setting("error.message").toStdString());
        const QString prefix = QStringLiteral("Certificate verification failed (SSL error)\n");
        QVERIFY2(message.startsWith(prefix) && message.endsWith(QLatin1Char('\n')), qPrintable(message));
        const QStringList errors = message.mid(prefix.size()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        QVERIFY(!errors.isEmpty());
        // Each error was logged with the server, in the same order, and nothing got through.
        const QString logPrefix = QStringLiteral("handleServerSocketSslErrors Error during communication with 127.0.0.1:%1: ").arg(m_server->serverPort());
        QStringList logged;
        for (const QString& line : m_logger->lines()) {
            if (line.startsWith(logPrefix))
                logged.append(line.mid(logPrefix.size()));
        }
        QCOMPARE(logged, errors);
        QVERIFY(m_server->lines().isEmpty());
    }
    // The slot called by hand (not by the socket's signal) acts on the current connection.
    void sslErrorsAreLoggedAndListedOnesClose_data()
    {
        QTest::addColumn<QList<QSslError>>("errors");
        QTest::addColumn<QString>("logLine");
        QTest::addColumn<veltrax::SettingsFile>("expected");
        const QSslError expired(QSslError::CertificateExpired);
        QTest::newRow("empty list keeps the connection")
            << QList<QSslError>() << QStringLiteral("handleServerSocketSslErrors An unidentified error occurred") << textTree({{"a", "b"}});
        QTest::newRow("listed error closes it")
            << QList<QSslError> {expired}
            << QStringLiteral("handleServerSocketSslErrors Error during communication with 127.0.0.1:%1: ") + expired.errorString()
            << textTree({{"error.message", "Could not connect to update server"}, {"error.command", "LIST"}, {"error.id", "p"}, {"error.mask", ""}});
    }
    void sslErrorsAreLoggedAndListedOnesClose()
    {
        QFETCH(QList<QSslError>, errors);
        QFETCH(QString, logLine);
        QFETCH(veltrax::SettingsFile, expected);
        QVERIFY(open());
        m_server->setResponder([](QSslSocket* socket, const QByteArray&) {
            socket->write(frame("LIST", textTree({{"a", "b"}})));
        });
        m_comm->handleServerSocketSslErrors(errors);
        QVERIFY2(!m_logger->lines(JLL_ALERT).filter(logLine.replace(QLatin1String("%1"), QString::number(m_server->serverPort()))).isEmpty(),
            qPrintable(m_logger->lines().join(QLatin1Char('\n'))));
        const veltrax::SettingsFile tree = runRequest<ServerListRequest>(*m_comm, QStringLiteral("p"), QString());
        QVERIFY2(treeDifference(tree, expected).isEmpty(), qPrintable(treeDifference(tree, expected)));
    }
    void terminateEndsAWaitingRequest_data()
    {
        QTest::addColumn<bool>("usage");
        QTest::addColumn<veltrax::SettingsFile>("expected");
        QTest::newRow("list2") << false << textTree({{"error.message", "Terminated"}, {"error.command", "LIS2T"}, {"error.id", "P1"}, {"error.mask", "M1"}});
        QTest::newRow("usage record") << true
                                      << textTree({{"error.message", "Sending of usage statistics was terminated by a T-800. Hasta la vista, baby"},
                                             {"error.command", "USAGE"}});
    }
    void terminateEndsAWaitingRequest()
    {
        QFETCH(bool, usage);
        QFETCH(veltrax::SettingsFile, expected);
        QTemporaryDir dir;
        QVERIFY(open());
        PendingReply pending(
            usage ? new SendUsageDataToServer(*m_comm, dir.filePath(QStringLiteral("App_1.log")), QStringLiteral("App_")) : lookup(*m_comm, "list2"));
        QTRY_VERIFY_WITH_TIMEOUT(!m_server->received().isEmpty(), kWait);
        QTest::qWait(30);
        QVERIFY(!pending.received());
        m_comm->terminate();
        QVERIFY(pending.wait(kWait));
        QVERIFY2(treeDifference(pending.tree(), expected).isEmpty(), qPrintable(treeDifference(pending.tree(), expected)));
    }
    void requestsAreServedOneAtATime()
    {
        QVERIFY(open());
        int outstanding = 0;
        bool overlapped = false;
        m_server->setResponder([&](QSslSocket* socket, const QByteArray& line) {
            if (++outstanding > 1)
                overlapped = true;
            const QByteArray id = line.split(' ').value(1);
            QPointer<QSslSocket> guard(socket);
            QTimer::singleShot(30, socket, [&, guard, id] {
                --outstanding;
                if (guard)
                    guard->write(frame("LIST", textTree({{"id", id.toStdString()}})));
            });
        });

        std::vector<std::unique_ptr<PendingReply>> pending;
        for (int i = 0; i < 4; ++i)
            pending.push_back(std::make_unique<PendingReply>(new ServerListRequest(*m_comm, QStringLiteral("P%1").arg(i), QString())));
        for (int i = 0; i < 4; ++i) {
            QVERIFY(pending[i]->wait(kWait));
            QCOMPARE(QString::fromStdString(pending[i]->tree().setting("id").toStdString()), QStringLiteral("P%1").arg(i));
        }
        QVERIFY(!overlapped);
        QTRY_COMPARE_WITH_TIMEOUT(m_comm->requestCount(), 0, kWait);
    }
    void destructorWaitsForARunningRequest()
    {
        QVERIFY(open());
        auto replied = std::make_shared<std::atomic<bool>>(false);
        QPointer<ServerRequest> request = new ServerListRequest(*m_comm, QStringLiteral("p"), QString());
        connect(
            request.data(),
            &ServerRequest::reply,
            request.data(),
            [replied](const veltrax::SettingsFile&) {
                replied->store(true);
            },
            Qt::DirectConnection);
        request->start();
        QTRY_COMPARE_WITH_TIMEOUT(m_server->lines().size(), 1, kWait);
        QCOMPARE(m_comm->requestCount(), 1);

        m_comm.reset(); // returns only once the request has given up and lowered the count
        QVERIFY(replied->load());
        QTRY_VERIFY_WITH_TIMEOUT(request.isNull(), kWait); // and it deleted itself
    }
    void usageRecordCarriesTheClosedLogsOnly_data()
    {
        QTest::addColumn<QStringList>("files"); // "name=content"; a name ending in '/' is a directory
        QTest::addColumn<veltrax::SettingsFile>("expected");
        QTest::addColumn<QByteArray>("ack");

        veltrax::SettingsFile logs;
        logs.setSetting("MyApp_usage_1", veltrax::Variant(veltrax::BinaryObject("first run\n", 10)));
        logs.setSetting("MyApp_usage_2", veltrax::Variant(veltrax::BinaryObject("second run\nline two\n", 20)));
        QTest::newRow("earlier logs of this application") << QStringList {"MyApp_usage_1.log=first run\n",
            "MyApp_usage_2.log=second run\nline two\n",
            "Other_usage_3.log=not ours\n",
            "MyApp_usage_now.log=being written\n",
            "MyApp_usage_dir/"} << logs << QByteArray("ACK 5 USAGE");
        QTest::newRow("no logs: an empty tree") << QStringList() << veltrax::SettingsFile() << QByteArray("ACK 11 USAGE taken");
    }
    void usageRecordCarriesTheClosedLogsOnly()
    {
        QFETCH(QStringList, files);
        QFETCH(veltrax::SettingsFile, expected);
        QFETCH(QByteArray, ack);
        QTemporaryDir dir;
        for (const QString& file : files) {
            const QString name = file.section(QLatin1Char('='), 0, 0);
            QVERIFY(name.endsWith(QLatin1Char('/')) ? QDir(dir.path()).mkdir(name) : writeFile(dir.filePath(name), file.section(QLatin1Char('='), 1).toUtf8()));
        }

        QVERIFY(open());
        PendingReply pending(new SendUsageDataToServer(*m_comm, dir.filePath(QStringLiteral("MyApp_usage_now.log")), QStringLiteral("MyApp_usage")));

        // "USAGE <length> " and the tree; then acknowledge.
        QTRY_COMPARE_WITH_TIMEOUT(m_server->received(), frame("USAGE", expected), kWait);
        m_server->lastConnection()->write(ack);

        QVERIFY(pending.wait(kWait));
        QVERIFY(pending.tree().empty());
    }
    void exceptionInARequestIsLoggedAndReleasesTheCount()
    {
        struct Throwing : ServerRequest {
            using ServerRequest::ServerRequest;
            void doRequest() override { throw std::runtime_error("boom"); }
        };
        UpdateServerComm comm(nullptr, UpdateServerOptions {QStringLiteral("127.0.0.1"), closedLoopbackPort()});
        PendingReply pending(new Throwing(comm));
        QTRY_COMPARE_WITH_TIMEOUT(comm.requestCount(), 0, kWait);
        QTest::qWait(0);
        QVERIFY(!pending.received());
        QVERIFY2(m_logger->contains(QStringLiteral("run Request failed: boom")), qPrintable(m_logger->lines().join(QLatin1Char('\n'))));
    }
    void blockingCallOnTheConnectionsThreadIsRefused()
    {
        // Waiting here would starve the event loop that has to carry the reply.
        QVERIFY(open());
        const veltrax::SettingsFile tree = m_comm->get2(QStringLiteral("i"), QStringLiteral("m"), QStringLiteral("v"));
        QCOMPARE(tree.setting("error.message").toStdString(), std::string("Blocking request on the connection's own thread"));
        QCOMPARE(tree.setting("error.command").toStdString(), std::string("GE2T"));
        QVERIFY(m_logger->contains(QStringLiteral("get2 Blocking request on the connection's own thread refused")));
        QTest::qWait(20);
        QVERIFY(m_server->received().isEmpty());
    }

private:
    /**
     * Starts a scripted server with the trusted certificate (or one nobody trusts) on loopback
     * and, unless @p connect is false, a connection to it waited for until encrypted.
     */
    bool open(bool trusted = true, bool connect = true)
    {
        TestCertificates& certs = trusted ? m_trusted : m_untrusted;
        m_server = std::make_unique<ScriptedTlsServer>(certs.serverCertificate(), certs.serverKey());
        if (!m_server->listenOnLoopback())
            return false;
        if (!connect)
            return true;
        QSignalSpy encrypted(m_server.get(), &ScriptedTlsServer::encryptedConnection);
        m_comm = std::make_unique<UpdateServerComm>(nullptr, UpdateServerOptions {QStringLiteral("127.0.0.1"), m_server->serverPort()});
        return m_server->lastConnection() != nullptr || encrypted.wait(kWait);
    }

    TestCertificates m_trusted;
    TestCertificates m_untrusted;
    std::unique_ptr<CapturingLogger> m_logger;
    std::unique_ptr<ScriptedTlsServer> m_server;
    std::unique_ptr<UpdateServerComm> m_comm;
};

QTEST_GUILESS_MAIN(UpdateServerCommTest)
#include "updateservercommtest.moc"
