// SPDX-License-Identifier: MIT
//
// Resumable tus uploads through faults against the real tus server: the uploading process
// killed and run again, the server killed mid-chunk, a server that stops reading.
#include "hookeduploader.h"
#include "testhelpers.h"
#include "tusserverprocess.h"

#include <QCryptographicHash>
#include <QPointer>
#include <QProcess>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>

namespace
{
constexpr int UploadTimeoutMs = 60000;

QByteArray sha256(const QByteArray& bytes)
{
    return QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex();
}

/**
 * A TCP proxy on 127.0.0.1 in front of another port. stall() stops it reading in either
 * direction, so the sender's buffers fill and nothing more moves; flow() drops the stalled
 * connections and lets new ones through.
 */
class StallingProxy : public QObject
{
public:
    explicit StallingProxy(quint16 target)
        : m_target(target)
    {
        connect(&m_server, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket* client = m_server.nextPendingConnection()) {
                auto* upstream = new QTcpSocket(this);
                client->setParent(this);
                for (QTcpSocket* socket : {client, upstream})
                    socket->setReadBufferSize(64 * 1024); // so that a stall reaches the sender
                connect(client, &QTcpSocket::readyRead, this, [=] { pump(client, upstream); });
                connect(upstream, &QTcpSocket::readyRead, this, [=] { pump(upstream, client); });
                connect(client, &QTcpSocket::disconnected, upstream, &QTcpSocket::disconnectFromHost);
                connect(upstream, &QTcpSocket::disconnected, client, &QTcpSocket::disconnectFromHost);
                upstream->connectToHost(QHostAddress::LocalHost, m_target);
                m_pairs.append(qMakePair(QPointer<QTcpSocket>(client), QPointer<QTcpSocket>(upstream)));
            }
        });
    }
    bool listen() { return m_server.listen(QHostAddress::LocalHost); }
    QString url(const QString& path) const { return QStringLiteral("http://127.0.0.1:%1%2").arg(m_server.serverPort()).arg(path); }
    void stall() { m_flowing = false; }
    void flow()
    {
        for (const auto& pair : qAsConst(m_pairs)) {
            for (QTcpSocket* socket : {pair.first.data(), pair.second.data()})
                socket ? socket->abort() : void();
        }
        m_pairs.clear();
        m_flowing = true;
    }

private:
    void pump(QTcpSocket* from, QTcpSocket* to)
    {
        if (m_flowing)
            to->write(from->readAll());
    }

    QTcpServer m_server;
    const quint16 m_target;
    bool m_flowing = true;
    QList<QPair<QPointer<QTcpSocket>, QPointer<QTcpSocket>>> m_pairs;
};
} // namespace

class TusFaultTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_files;
    TusServerProcess m_server;

private Q_SLOTS:
    void initTestCase() { QVERIFY2(m_server.start(), qPrintable(m_server.errorString())); }
    void init()
    {
        isolateSettings();
        m_server.clearRequests();
    }

    // The helper uploads with resume on and is killed (SIGKILL) when it says @p killAt;
    // run again, it goes on from what the server has.
    void uploadSurvivesTheProcessKilled_data()
    {
        QTest::addColumn<QByteArray>("killAt"); // "POST", or "progress" beyond 2.6 MB (the third chunk)
        QTest::addColumn<bool>("resumes"); // else the second run creates the upload anew
        QTest::newRow("mid-chunk") << QByteArray("progress") << true;
        QTest::newRow("during the creation request") << QByteArray("POST") << false;
    }
    void uploadSurvivesTheProcessKilled()
    {
        QFETCH(QByteArray, killAt);
        QFETCH(bool, resumes);
        const int chunk = 1 << 20;
        const QByteArray contents = randomBytes(5 * chunk + 123, 31);
        const QString path = makeFile(m_files, QStringLiteral("restart.bin"), contents);
        const QString settings = m_files.filePath(QString::fromLatin1(QTest::currentDataTag()));
        const QStringList arguments {m_server.creationUrl(), path, settings, QString::number(chunk)};

        const auto due = [&](const QByteArray& line) {
            return line.startsWith(killAt) && (killAt == "POST" || line.mid(9).toLongLong() >= 2600000);
        };
        QProcess first;
        first.start(QStringLiteral(TUS_FAULT_HELPER), arguments);
        QVERIFY(first.waitForStarted());
        bool killed = false;
        QDeadlineTimer deadline(UploadTimeoutMs);
        while (!killed && first.state() == QProcess::Running && !deadline.hasExpired()) {
            if (!first.canReadLine() && !first.waitForReadyRead(int(deadline.remainingTime())))
                continue;
            while (!killed && first.canReadLine()) {
                if (due(first.readLine().trimmed())) {
                    first.kill();
                    killed = true;
                }
            }
        }
        QVERIFY2(killed, "the helper ended before the fault");
        QVERIFY(first.waitForFinished(10000));
        m_server.clearRequests();

        QProcess second;
        second.start(QStringLiteral(TUS_FAULT_HELPER), arguments);
        QVERIFY(second.waitForFinished(UploadTimeoutMs));
        const QList<QByteArray> lines = second.readAllStandardOutput().split('\n');
        QCOMPARE(second.exitCode(), 0);
        QByteArray url;
        QList<QByteArray> requests;
        for (const QByteArray& line : lines) {
            if (line.startsWith("finished "))
                url = line.mid(9);
            else if (!line.startsWith("progress ") && !line.isEmpty())
                requests.append(line);
        }
        QVERIFY(!requests.isEmpty());
        QCOMPARE(requests.first(), resumes ? QByteArray("HEAD") : QByteArray("POST"));
        QCOMPARE(requests.count("POST"), resumes ? 0 : 1);
        QVERIFY(!url.isEmpty());

        // Only the rest went out, from the offset the server gave.
        const qint64 resumedAt = requests.at(1).mid(6).toLongLong();
        QVERIFY2(resumes ? resumedAt > 2 * chunk : resumedAt == 0, requests.at(1).constData());
        qint64 sent = 0;
        for (const auto& patch : m_server.requests("PATCH"))
            sent += patch.header("Content-Length").toLongLong();
        QCOMPARE(sent, contents.size() - resumedAt);
        QCOMPARE(sha256(m_server.storedData(TusServerProcess::idOfUploadUrl(QString::fromUtf8(url)))), sha256(contents));
    }

    // The server dies while a large chunk is under way and keeps the part it had.
    void serverKilledMidChunk_data()
    {
        QTest::addColumn<bool>("resumable");
        QTest::newRow("resumable: HEAD, then on from the server's offset") << true;
        QTest::newRow("not resumable: the chunk again at its old offset, refused") << false;
    }
    void serverKilledMidChunk()
    {
        QFETCH(bool, resumable);
        TusServerProcess server;
        QVERIFY2(server.start(), qPrintable(server.errorString()));
        const qint64 chunk = 8 << 20;
        const QByteArray contents = randomBytes(2 * chunk + 4321, 32);
        const QString path = makeFile(m_files, QStringLiteral("midchunk.bin"), contents);

        HookedUploader uploader(server.creationUrl());
        uploader.setChunkSize(chunk);
        uploader.setResumable(resumable);
        uploader.setRetryDelays({0, 0});
        uploader.setAuthentication(QStringLiteral("token"), QStringLiteral("key"));
        QString serverError;
        qint64 lowestAfterKill = -1;
        connect(&uploader, &TusUploader::uploadProgress, this, [&](const QString&, qint64, qint64 sent) {
            if (lowestAfterKill >= 0) {
                lowestAfterKill = qMin(lowestAfterKill, sent);
            } else if (sent > chunk + chunk * 3 / 4) {
                lowestAfterKill = sent;
                if (!server.kill() || !server.start())
                    serverError = server.errorString();
            }
        });
        QSignalSpy finished(&uploader, &TusUploader::uploadFinished);
        QSignalSpy failed(&uploader, &TusUploader::uploadFailed);
        QVERIFY(uploader.startUploadFile(path, QString()));
        QTRY_VERIFY_WITH_TIMEOUT(finished.count() + failed.count() > 0, UploadTimeoutMs);
        QVERIFY2(serverError.isEmpty(), qPrintable(serverError));
        const QString id = TusServerProcess::idOfUploadUrl(uploader.serverFilePath());
        if (!resumable) {
            QCOMPARE(failed.count(), 1);
            QCOMPARE(uploader.count("HEAD"), 0);
            QCOMPARE(uploader.patchOffsets().mid(0, 3), (QList<qint64> {0, chunk, chunk}));
            QVERIFY2(server.storedData(id).size() > chunk, "the server kept no part of the chunk");
            return;
        }
        QCOMPARE(failed.count(), 0);
        QCOMPARE(uploader.count("HEAD"), 1);
        const QList<qint64> offsets = uploader.patchOffsets();
        QCOMPARE(offsets.mid(0, 2), (QList<qint64> {0, chunk}));
        QVERIFY2(offsets.at(2) > chunk, qPrintable(QString::number(offsets.at(2))));
        QVERIFY(lowestAfterKill >= chunk); // progress goes on from the server's offset
        QCOMPARE(sha256(server.storedData(id)), sha256(contents));
        for (const auto& request : server.requests()) {
            QCOMPARE(request.header("Authorization"), QByteArray("Bearer token"));
            QCOMPARE(request.header("Ocp-Apim-Subscription-Key"), QByteArray("key"));
            QCOMPARE(request.header("Tus-Resumable"), QByteArray("1.0.0"));
        }
    }

    // The proxy stops reading as the third chunk goes out, and flows again when the
    // uploader asks the server for its offset.
    void serverThatStopsReading_data()
    {
        QTest::addColumn<int>("stallTimeout");
        QTest::newRow("stall timeout: aborted, resumed, complete") << 1000;
        QTest::newRow("no timeout: waits") << 0;
    }
    void serverThatStopsReading()
    {
        QFETCH(int, stallTimeout);
        StallingProxy proxy(m_server.port());
        QVERIFY(proxy.listen());
        const int chunk = 64 * 1024;
        const QByteArray contents = randomBytes(5 * chunk + 9, 33);
        const QString path = makeFile(m_files, QStringLiteral("stall.bin"), contents);

        HookedUploader uploader(proxy.url(QStringLiteral("/files")));
        uploader.setChunkSize(chunk);
        uploader.setResumable(true);
        uploader.setRetryDelays({0, 0});
        uploader.setStallTimeout(stallTimeout);
        uploader.hook = [&](QNetworkRequest&, const HookedUploader::Prepared& prepared) {
            if (prepared.patch && prepared.offset == 2 * chunk && uploader.patchOffsets().count(2 * chunk) == 1)
                proxy.stall();
            if (prepared.verb == "HEAD")
                proxy.flow();
        };
        QSignalSpy finished(&uploader, &TusUploader::uploadFinished);
        QSignalSpy failed(&uploader, &TusUploader::uploadFailed);
        QVERIFY(uploader.startUploadFile(path, QString()));
        if (stallTimeout == 0) {
            QVERIFY(!failed.wait(1000));
            QCOMPARE(finished.count(), 0);
            QCOMPARE(uploader.getState(), TusState::Patch);
            QCOMPARE(uploader.patchOffsets(), (QList<qint64> {0, chunk, 2 * chunk}));
            return;
        }
        QTRY_VERIFY_WITH_TIMEOUT(finished.count() + failed.count() > 0, UploadTimeoutMs);
        QVERIFY2(failed.isEmpty(), qPrintable(failed.value(0).value(1).toString()));
        QCOMPARE(uploader.count("HEAD"), 1);
        QCOMPARE(sha256(m_server.storedData(TusServerProcess::idOfUploadUrl(uploader.serverFilePath()))), sha256(contents));
    }
};

QTEST_GUILESS_MAIN(TusFaultTest)
#include "tusfaulttest.moc"
