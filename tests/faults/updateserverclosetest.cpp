// SPDX-License-Identifier: MIT
// The update server closing the connection at every byte position of a reply: the request
// must return (nothing may wait forever), and after tryToConnectToServer() the next
// request on the same connection object must get its whole reply. This is the one place
// for dropped connections during and between replies.
#include "scriptedtlsserver.h"
#include "settingsfile.h"
#include "testcertificates.h"
#include "updateservercomm.h"

#include <QDeadlineTimer>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>

#include <atomic>
#include <functional>
#include <thread>

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

/** The byte form of a tree holding one text setting. */
QByteArray treeBytes(const std::string& label, const std::string& value)
{
    veltrax::SettingsFile tree;
    tree.setSetting(label, veltrax::Variant(value));
    return treeBytes(tree);
}

/**
 * Runs the event loop until @p done, at most @p timeoutMs. Unlike QTest::qWaitFor it does not
 * sleep between looks, so the hundreds of round trips here stay quick.
 */
bool waitUntil(const std::function<bool()>& done, int timeoutMs)
{
    QTimer tick; // wakes the loop for conditions that change on other threads
    tick.start(1);
    const QDeadlineTimer deadline(timeoutMs);
    while (!done()) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    return true;
}

enum class Request { List, List2, Get2 };

/**
 * Makes one blocking request on a worker thread, as ServerRequest does, and runs this
 * thread's event loop (which owns the connection) until it returns, boundedly. The reply
 * comes back through the thread's join rather than a queued signal, so ThreadSanitizer sees
 * the hand-over.
 */
bool run(Request kind, UpdateServerComm& comm, veltrax::SettingsFile& reply)
{
    std::atomic<bool> done {false};
    std::thread worker([&] {
        const QString id = QStringLiteral("product");
        const QString mask = QStringLiteral("mask");
        reply = kind == Request::List ? comm.list(id, mask) : kind == Request::List2 ? comm.list2(id, mask) : comm.get2(id, mask, QStringLiteral("1.2.3"));
        done = true;
    });
    const bool returned = waitUntil(
        [&] {
            return done.load();
        },
        kWait);
    if (!returned)
        comm.terminate(); // lets the worker go, so the test fails instead of hanging
    worker.join();
    return returned;
}

UpdateServerOptions loopback(quint16 port)
{
    return {QStringLiteral("127.0.0.1"), port};
}

bool waitForConnections(const ScriptedTlsServer& server, int count)
{
    return waitUntil(
        [&] {
            return server.connections().size() >= count;
        },
        kWait);
}
} // namespace

class UpdateServerCloseTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(m_certificates.create(), qPrintable(m_certificates.errorString()));
        trustCertificateAuthority(m_certificates.caCertificate());
        qRegisterMetaType<size_t>("size_t");
    }

    void closedAtEveryByteOfAReplyRecovers_data()
    {
        QTest::addColumn<int>("kind");
        QTest::addColumn<QByteArray>("reply");
        QTest::addColumn<QString>("message");
        QTest::newRow("list tree") << int(Request::List) << frame("LIST", treeBytes("a", "b")) << QString();
        QTest::newRow("get2 tree") << int(Request::Get2) << frame("GE2T", treeBytes("u", "x")) << QString();
        QTest::newRow("error text") << int(Request::List2) << frame("ERROR", "nope\n") << QStringLiteral("nope");
    }

    void closedAtEveryByteOfAReplyRecovers()
    {
        QFETCH(int, kind);
        QFETCH(QByteArray, reply);
        QFETCH(QString, message);

        ScriptedTlsServer server(m_certificates.serverCertificate(), m_certificates.serverKey());
        QVERIFY(server.listenOnLoopback());
        // Cut the next reply after this many bytes (dribbled one byte a read, then closed);
        // -1 answers in full and keeps the connection.
        int cut = -1;
        server.setResponder([&cut, reply](QSslSocket* socket, const QByteArray&) {
            // Each piece leaves at once instead of waiting for the client's delayed ACK.
            socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
            if (cut < 0) {
                socket->write(reply);
                return;
            }
            if (cut == 0)
                socket->disconnectFromHost();
            else
                ScriptedTlsServer::dribble(socket, reply.left(cut), 1, 1, true);
        });

        QSignalSpy encrypted(&server, &ScriptedTlsServer::encryptedConnection);
        UpdateServerComm comm(nullptr, loopback(server.serverPort()));
        QVERIFY(encrypted.wait(kWait));

        const auto requestKind = static_cast<Request>(kind);
        for (int position = 0; position < reply.size(); ++position) {
            const QByteArray where = "closed after " + QByteArray::number(position) + " bytes";
            cut = position;
            veltrax::SettingsFile cutShort;
            QVERIFY2(run(requestKind, comm, cutShort), where.constData());
            // Nothing half-read may pass for a reply: an empty tree, the dropped connection.
            QVERIFY2(cutShort.empty(), where.constData());

            cut = -1;
            encrypted.clear();
            comm.tryToConnectToServer();
            QVERIFY2(encrypted.wait(kWait), where.constData());
            veltrax::SettingsFile whole;
            QVERIFY2(run(requestKind, comm, whole), where.constData());
            if (message.isEmpty()) {
                QVERIFY2(!whole.empty() && !whole.hasSubTree("error"), where.constData());
                QCOMPARE(frame(reply.left(5).trimmed(), treeBytes(whole)), reply);
            } else {
                QCOMPARE(QString::fromStdString(whole.setting("error.message").toStdString()), message);
            }
        }
    }

    void closedWhileIdleRecovers()
    {
        // The server drops each connection right after the handshake, before any request.
        // A request made around that moment must return (connection failure or an empty
        // tree), whichever of the two the connection noticed first.
        ScriptedTlsServer server(m_certificates.serverCertificate(), m_certificates.serverKey());
        QVERIFY(server.listenOnLoopback());
        bool dropIdle = true;
        connect(&server, &ScriptedTlsServer::encryptedConnection, this, [&] {
            if (dropIdle)
                server.lastConnection()->disconnectFromHost();
        });
        server.setResponder([](QSslSocket* socket, const QByteArray&) {
            socket->write(frame("LIST", treeBytes("a", "b")));
        });

        UpdateServerComm comm(nullptr, loopback(server.serverPort()));
        for (int attempt = 0; attempt < 20; ++attempt) {
            const QByteArray where = "attempt " + QByteArray::number(attempt);
            QVERIFY2(waitForConnections(server, attempt + 1), where.constData());
            veltrax::SettingsFile tree;
            QVERIFY2(run(Request::List, comm, tree), where.constData());
            QVERIFY2(tree.setting("a").empty(), where.constData());
            comm.tryToConnectToServer();
        }
        dropIdle = false;
        QVERIFY(waitForConnections(server, 21));
        veltrax::SettingsFile tree;
        QVERIFY(run(Request::List, comm, tree));
        QCOMPARE(tree.setting("a").toStdString(), std::string("b"));
    }

private:
    TestCertificates m_certificates;
};

QTEST_GUILESS_MAIN(UpdateServerCloseTest)
#include "updateserverclosetest.moc"
