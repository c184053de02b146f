// SPDX-License-Identifier: MIT
//
// The demo's local HTTP server: installers, the tus endpoint, and what it does with requests
// that are not well-formed. Raw bytes over loopback.
#include "localhttpserver.h"
#include "testhelpers.h"

#include <QCryptographicHash>
#include <QSignalSpy>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>

namespace
{

/** One raw exchange: the status line's code and the whole answer. */
struct Answer {
    int status = 0;
    QByteArray headers;
    QByteArray body;

    QByteArray header(const QByteArray& name) const
    {
        for (const QByteArray& line : headers.split('\n')) {
            const int colon = line.indexOf(':');
            if (colon > 0 && line.left(colon).trimmed().compare(name, Qt::CaseInsensitive) == 0)
                return line.mid(colon + 1).trimmed();
        }
        return QByteArray();
    }
};

} // namespace

class LocalHttpServerTest : public QObject
{
    Q_OBJECT

private:
    /**
     * Sends @p request and reads one answer (bounded); the server runs in this thread. On a
     * time-out what did arrive is parsed, and the test's checks fail on it.
     */
    Answer exchange(const QByteArray& request)
    {
        QTcpSocket socket;
        socket.connectToHost(QHostAddress::LocalHost, m_server->serverPort());
        socket.write(request); // goes out once connected
        Answer answer;
        QByteArray in;
        int end = -1;
        const auto complete = [&] {
            in += socket.readAll();
            end = in.indexOf("\r\n\r\n");
            answer.headers = in.left(end);
            const bool whole = end >= 0 && (request.startsWith("HEAD ") || in.size() - end - 4 >= answer.header("Content-Length").toLongLong());
            return whole || socket.state() == QAbstractSocket::UnconnectedState;
        };
        static_cast<void>(QTest::qWaitFor(complete, 5000));
        if (end < 0)
            return Answer();
        answer.body = in.mid(end + 4);
        const QList<QByteArray> statusLine = answer.headers.left(answer.headers.indexOf('\r')).split(' ');
        answer.status = statusLine.size() > 1 ? statusLine.at(1).toInt() : -1;
        return answer;
    }

    static QByteArray tusRequest(const QByteArray& method, const QByteArray& path, const QByteArray& extra, const QByteArray& body = QByteArray())
    {
        return method + ' ' + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nTus-Resumable: 1.0.0\r\n" + extra + "Content-Length: " + QByteArray::number(body.size())
            + "\r\n\r\n" + body;
    }

    static QByteArray patchHeaders(qint64 offset)
    {
        return "Upload-Offset: " + QByteArray::number(offset) + "\r\nContent-Type: application/offset+octet-stream\r\n";
    }

    QTemporaryDir m_dir;
    std::unique_ptr<LocalHttpServer> m_server;

private Q_SLOTS:
    void init()
    {
        QVERIFY(m_dir.isValid());
        m_server = std::make_unique<LocalHttpServer>(m_dir.filePath(QStringLiteral("store")));
        QVERIFY(m_server->start());
        // The link handed out is the one the installer is served under.
        QCOMPARE(m_server->addFile(QStringLiteral("setup.run"), QByteArray("#!/bin/sh\nexit 0\n")),
            QStringLiteral("http://127.0.0.1:%1/installers/setup.run").arg(m_server->serverPort()));
    }
    void cleanup() { m_server.reset(); }

    void installerIsServed_data()
    {
        QTest::addColumn<QByteArray>("method");
        QTest::addColumn<QByteArray>("path");
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QByteArray>("headers"); // extra request headers
        QTest::newRow("get") << QByteArray("GET") << QByteArray("/installers/setup.run") << 200 << QByteArray("#!/bin/sh\nexit 0\n") << QByteArray();
        QTest::newRow("head has the length, no body") << QByteArray("HEAD") << QByteArray("/installers/setup.run") << 200 << QByteArray() << QByteArray();
        QTest::newRow("query ignored") << QByteArray("GET") << QByteArray("/installers/setup.run?x=1") << 200 << QByteArray("#!/bin/sh\nexit 0\n")
                                       << QByteArray();
        QTest::newRow("unknown installer") << QByteArray("GET") << QByteArray("/installers/other.run") << 404 << QByteArray() << QByteArray();
        QTest::newRow("no way out of the directory") << QByteArray("GET") << QByteArray("/installers/../store") << 404 << QByteArray() << QByteArray();
        QTest::newRow("post not allowed") << QByteArray("POST") << QByteArray("/installers/setup.run") << 405 << QByteArray() << QByteArray();
        QTest::newRow("unknown path") << QByteArray("GET") << QByteArray("/") << 404 << QByteArray() << QByteArray();
        const QByteArray etag = '"' + QCryptographicHash::hash("#!/bin/sh\nexit 0\n", QCryptographicHash::Sha1).toHex().left(16) + '"';
        QTest::newRow("range resumes") << QByteArray("GET") << QByteArray("/installers/setup.run") << 206 << QByteArray("exit 0\n")
                                       << QByteArray("Range: bytes=10-\r\n");
        QTest::newRow("range of this version") << QByteArray("GET") << QByteArray("/installers/setup.run") << 206 << QByteArray("exit 0\n")
                                               << "Range: bytes=10-\r\nIf-Range: " + etag + "\r\n";
        QTest::newRow("range of another version: all") << QByteArray("GET") << QByteArray("/installers/setup.run") << 200 << QByteArray("#!/bin/sh\nexit 0\n")
                                                       << QByteArray("Range: bytes=10-\r\nIf-Range: \"old\"\r\n");
        QTest::newRow("range past the end") << QByteArray("GET") << QByteArray("/installers/setup.run") << 416 << QByteArray()
                                            << QByteArray("Range: bytes=17-\r\n");
    }
    void installerIsServed()
    {
        QFETCH(QByteArray, method);
        QFETCH(QByteArray, path);
        QFETCH(int, status);
        QFETCH(QByteArray, body);
        QFETCH(QByteArray, headers);
        const Answer answer = exchange(method + ' ' + path + " HTTP/1.1\r\nHost: x\r\n" + headers + "\r\n");
        QCOMPARE(answer.status, status);
        QCOMPARE(answer.body, body);
        if (method == "HEAD")
            QCOMPARE(answer.header("Content-Length"), QByteArray("17"));
    }

    void badRequestIsRefused_data()
    {
        QTest::addColumn<QByteArray>("request");
        QTest::addColumn<int>("status");
        QTest::newRow("not http") << QByteArray("HELLO\r\n\r\n") << 400;
        QTest::newRow("header line without colon") << QByteArray("GET / HTTP/1.1\r\nbroken\r\n\r\n") << 400;
        QTest::newRow("negative length") << QByteArray("GET / HTTP/1.1\r\nContent-Length: -5\r\n\r\n") << 400;
        QTest::newRow("length with letters") << QByteArray("GET / HTTP/1.1\r\nContent-Length: 5x\r\n\r\n") << 400;
        QTest::newRow("body beyond the limit") << QByteArray("PATCH /files/x HTTP/1.1\r\nContent-Length: 999999999999\r\n\r\n") << 413;
        QTest::newRow("chunked body") << QByteArray("POST /files HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n") << 411;
        QTest::newRow("header block too large") << QByteArray("GET / HTTP/1.1\r\nX: " + QByteArray(LocalHttpServer::MaxHeaderBytes + 10, 'a') + "\r\n\r\n")
                                                << 431;
        QTest::newRow("header block without end") << QByteArray("GET / HTTP/1.1\r\nX: " + QByteArray(LocalHttpServer::MaxHeaderBytes + 10, 'a')) << 431;
        QTest::newRow("without Tus-Resumable") << QByteArray("POST /files HTTP/1.1\r\nUpload-Length: 5\r\n\r\n") << 412;
        QTest::newRow("other tus version") << QByteArray("POST /files HTTP/1.1\r\nTus-Resumable: 0.2.2\r\nUpload-Length: 5\r\n\r\n") << 412;
        QTest::newRow("without length") << tusRequest("POST", "/files", QByteArray()) << 400;
        QTest::newRow("length too large") << tusRequest("POST", "/files", "Upload-Length: " + QByteArray::number(LocalHttpServer::MaxUploadBytes + 1) + "\r\n")
                                          << 413;
        QTest::newRow("metadata not base64") << tusRequest("POST", "/files", "Upload-Length: 5\r\nUpload-Metadata: name !!!\r\n") << 400;
        QTest::newRow("unknown upload") << tusRequest("HEAD", "/files/0123456789abcdef", QByteArray()) << 404;
        QTest::newRow("patch on the collection") << tusRequest("PATCH", "/files", patchHeaders(0), "ab") << 405;
    }
    void badRequestIsRefused()
    {
        QFETCH(QByteArray, request);
        QFETCH(int, status);
        QCOMPARE(exchange(request).status, status);
        QVERIFY(m_server->uploads().isEmpty());
        // The server is still there for the next client.
        QCOMPARE(exchange("GET /installers/setup.run HTTP/1.1\r\n\r\n").status, 200);
    }

    void pipelinedRequestsAreAnsweredInOrder()
    {
        QTcpSocket socket;
        socket.connectToHost(QHostAddress::LocalHost, m_server->serverPort());
        QVERIFY(socket.waitForConnected(5000));
        socket.write("GET /installers/setup.run HTTP/1.1\r\n\r\nGET /nope HTTP/1.1\r\n\r\nHEAD /installers/setup.run HTTP/1.1\r\n\r\n");
        QByteArray in;
        QVERIFY(QTest::qWaitFor(
            [&] {
                in += socket.readAll();
                return in.count("HTTP/1.1 ") == 3;
            },
            5000));
        const int ok = in.indexOf("HTTP/1.1 200");
        const int missing = in.indexOf("HTTP/1.1 404");
        QVERIFY(ok >= 0 && missing > ok && in.lastIndexOf("HTTP/1.1 200") > missing);
    }

    void tusRequest_data()
    {
        QTest::addColumn<QByteArray>("method");
        QTest::addColumn<QByteArray>("extra");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<int>("status");
        QTest::addColumn<qint64>("offsetAfter");
        // Each row runs on a fresh upload of 10 bytes of which 4 have arrived.
        QTest::newRow("patch at the offset") << QByteArray("PATCH") << patchHeaders(4) << QByteArray("5678") << 204 << qint64(8);
        QTest::newRow("patch to the end") << QByteArray("PATCH") << patchHeaders(4) << QByteArray("567890") << 204 << qint64(10);
        QTest::newRow("patch at a wrong offset") << QByteArray("PATCH") << patchHeaders(3) << QByteArray("4567") << 409 << qint64(4);
        QTest::newRow("patch beyond the length") << QByteArray("PATCH") << patchHeaders(4) << QByteArray("5678901") << 413 << qint64(4);
        QTest::newRow("patch without offset") << QByteArray("PATCH") << QByteArray("Content-Type: application/offset+octet-stream\r\n") << QByteArray("56")
                                              << 400 << qint64(4);
        QTest::newRow("patch of another type") << QByteArray("PATCH") << QByteArray("Upload-Offset: 4\r\nContent-Type: text/plain\r\n") << QByteArray("56")
                                               << 415 << qint64(4);
        QTest::newRow("head") << QByteArray("HEAD") << QByteArray() << QByteArray() << 200 << qint64(4);
        QTest::newRow("get is not tus") << QByteArray("GET") << QByteArray() << QByteArray() << 405 << qint64(4);
    }
    void tusRequest()
    {
        QFETCH(QByteArray, method);
        QFETCH(QByteArray, extra);
        QFETCH(QByteArray, body);
        QFETCH(int, status);
        QFETCH(qint64, offsetAfter);
        const Answer created = exchange(tusRequest("POST", "/files", "Upload-Length: 10\r\n"));
        QCOMPARE(created.status, 201);
        const QByteArray path = QUrl(QString::fromUtf8(created.header("Location"))).path().toUtf8();
        QCOMPARE(exchange(tusRequest("PATCH", path, patchHeaders(0), "1234")).status, 204);

        const Answer answer = exchange(tusRequest(method, path, extra, body));
        QCOMPARE(answer.status, status);
        const Answer head = exchange(tusRequest("HEAD", path, QByteArray()));
        QCOMPARE(head.header("Upload-Offset").toLongLong(), offsetAfter);
        QCOMPARE(head.header("Upload-Length"), QByteArray("10"));
    }

    void completedUploadIsKept()
    {
        // Uploads with the library's uploader are covered by tusuploadertest and by the
        // demo's headless run (which compares the endpoint's copy); here: this server's own
        // record of an upload, from raw requests.
        QSignalSpy completed(m_server.get(), &LocalHttpServer::uploadCompleted);
        const Answer created = exchange(tusRequest("POST", "/files", "Upload-Length: 5\r\nUpload-Metadata: filename InJlYy5iaW4i,empty\r\n"));
        QCOMPARE(created.status, 201);
        const QByteArray path = QUrl(QString::fromUtf8(created.header("Location"))).path().toUtf8();
        QCOMPARE(exchange(tusRequest("PATCH", path, patchHeaders(0), "ab")).status, 204);
        QCOMPARE(completed.count(), 0);
        QCOMPARE(exchange(tusRequest("PATCH", path, patchHeaders(2), "cde")).status, 204);

        QCOMPARE(completed.count(), 1);
        const QList<LocalHttpServer::Upload> uploads = m_server->uploads();
        QCOMPARE(uploads.size(), 1);
        QCOMPARE(m_server->tusUrl() + QLatin1Char('/') + uploads.constFirst().id, QString::fromUtf8(created.header("Location")));
        QCOMPARE(readFile(uploads.constFirst().path), QByteArray("abcde"));
        QCOMPARE(uploads.constFirst().metadata.value(QStringLiteral("filename")), QByteArray("\"rec.bin\""));
        QVERIFY(uploads.constFirst().metadata.contains(QStringLiteral("empty")));
    }
};

QTEST_GUILESS_MAIN(LocalHttpServerTest)
#include "localhttpservertest.moc"
