// SPDX-License-Identifier: MIT
//
// TusUploader resending a step after a failure, with short retry delays set: the server
// dying between chunks, creations answered with a refusal or an error status, giving up.
#include "hookeduploader.h"
#include "httpresponder.h"
#include "testhelpers.h"
#include "tusserverprocess.h"
#include "tusuploader.h"

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QTimer>
#include <QSettings>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

namespace
{
constexpr int UploadTimeoutMs = 30000;
} // namespace

class TusUploaderRetryTest : public QObject
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

    // Each lost chunk goes again at its old offset after the delay. One retry is allowed,
    // and the upload survives two deaths: the stored chunks between them start the count again.
    void serverKilledBetweenChunksGetsTheSameChunkAgain()
    {
        TusServerProcess server;
        QVERIFY2(server.start(), qPrintable(server.errorString()));
        const int chunk = 64 * 1024;
        const QByteArray contents = randomBytes(5 * chunk + 77, 23);
        const QString path = makeFile(m_files, QStringLiteral("killed.bin"), contents);

        HookedUploader uploader(server.creationUrl());
        uploader.setChunkSize(chunk);
        const int delay = 200;
        uploader.setRetryDelays({delay});
        QElapsedTimer sinceKill;
        QList<qint64> retryGaps;
        QString serverError;
        // The server dies as the second and the fourth chunk are about to go, and comes
        // back on the same port with the same store as the lost chunk is resent.
        uploader.hook = [&](QNetworkRequest&, const HookedUploader::Prepared& prepared) {
            if (!prepared.patch || (prepared.offset != chunk && prepared.offset != 3 * chunk))
                return;
            if (server.isRunning() && uploader.patchOffsets().count(prepared.offset) == 1) {
                if (!server.kill())
                    serverError = server.errorString();
                sinceKill.start();
            } else if (!server.isRunning()) {
                retryGaps.append(sinceKill.elapsed());
                if (!server.start())
                    serverError = server.errorString();
            }
        };
        QSignalSpy finished(&uploader, &TusUploader::uploadFinished);
        QSignalSpy failed(&uploader, &TusUploader::uploadFailed);
        QVERIFY(uploader.startUploadFile(path, QString()));

        QTRY_VERIFY_WITH_TIMEOUT(finished.count() + failed.count() > 0, UploadTimeoutMs);
        QVERIFY2(serverError.isEmpty(), qPrintable(serverError));
        QCOMPARE(failed.count(), 0);
        QCOMPARE(uploader.getState(), TusState::Finish);
        QCOMPARE(uploader.patchOffsets(), (QList<qint64> {0, chunk, chunk, 2 * chunk, 3 * chunk, 3 * chunk, 4 * chunk, 5 * chunk}));
        QCOMPARE(retryGaps.size(), 2);
        for (qint64 gap : qAsConst(retryGaps))
            QVERIFY2(gap >= delay, qPrintable(QString::number(gap)));
        QVERIFY(server.storedData(TusServerProcess::idOfUploadUrl(uploader.serverFilePath())) == contents);
    }

    // The first creation attempts go to a closed port (status 0) or to a responder with
    // that status; later ones reach the tus server.
    void failedCreationIsRetriedOrEndsTheUpload_data()
    {
        QTest::addColumn<QList<int>>("delays");
        QTest::addColumn<int>("status");
        QTest::addColumn<int>("failingAttempts");
        QTest::addColumn<int>("attempts");
        QTest::addColumn<QString>("reason"); // empty: the upload finishes

        QTest::newRow("refused twice, a negative wait counts as 0") << QList<int> {0, -5} << 0 << 2 << 3 << QString();
        QTest::newRow("503, retried") << QList<int> {0} << 503 << 1 << 2 << QString();
        QTest::newRow("423, retried") << QList<int> {0} << 423 << 1 << 2 << QString();
        QTest::newRow("503 without delays ends it") << QList<int>() << 503 << 1 << 1 << "Test";
        QTest::newRow("404 ends it at once") << QList<int> {0} << 404 << 1 << 1 << "Test";
        QTest::newRow("refused after the last delay gives up") << QList<int> {0, 0} << 0 << 9 << 3 << "Connection refused";
    }
    void failedCreationIsRetriedOrEndsTheUpload()
    {
        QFETCH(QList<int>, delays);
        QFETCH(int, status);
        QFETCH(int, failingAttempts);
        QFETCH(int, attempts);
        QFETCH(QString, reason);

        HttpResponder responder;
        QVERIFY(responder.listen());
        responder.routes.insert("/files", Route {status, "Test"});
        const QString failingUrl = status == 0 ? QStringLiteral("http://127.0.0.1:%1/files").arg(closedLoopbackPort()) : responder.url("/files");
        const QByteArray contents = randomBytes(5000, 12);
        const QString path = makeFile(m_files, QStringLiteral("late.bin"), contents);

        HookedUploader uploader(m_server.creationUrl());
        uploader.setChunkSize(2000);
        uploader.setRetryDelays(delays);
        uploader.hook = [&](QNetworkRequest& request, const HookedUploader::Prepared& prepared) {
            if (!prepared.patch && uploader.creations() <= failingAttempts)
                request.setUrl(QUrl(failingUrl));
        };
        QSignalSpy finished(&uploader, &TusUploader::uploadFinished);
        QSignalSpy failed(&uploader, &TusUploader::uploadFailed);
        QVERIFY(uploader.startUploadFile(path, QString()));
        QTRY_VERIFY_WITH_TIMEOUT(finished.count() + failed.count() > 0, UploadTimeoutMs);
        QCOMPARE(uploader.creations(), attempts);
        if (reason.isEmpty()) {
            QCOMPARE(failed.count(), 0);
            QCOMPARE(uploader.patchOffsets(), (QList<qint64> {0, 2000, 4000}));
            QVERIFY(m_server.storedData(TusServerProcess::idOfUploadUrl(uploader.serverFilePath())) == contents);
            QCOMPARE(m_server.requests("POST").size(), 1);
        } else {
            QCOMPARE(finished.count(), 0);
            QVERIFY2(failed.at(0).at(1).toString().contains(reason), qPrintable(failed.at(0).at(1).toString()));
            QCOMPARE(uploader.getState(), TusState::Error);
            QVERIFY(m_server.requests().isEmpty());
        }
    }

    // Against a closed port: one attempt, then one after each listed delay, then
    // uploadFailed(); abort() while a retry waits ends it there, with nothing after.
    void closedPortRetriesForTheListedDelays_data()
    {
        QTest::addColumn<QList<int>>("delays");
        QTest::addColumn<int>("abortAfter"); // failed attempts; 0: no abort
        QTest::addColumn<QString>("reason");
        QTest::newRow("gives up after the last delay") << QList<int> {50, 150, 0} << 0 << "Connection refused";
        QTest::newRow("abort() during the second wait") << QList<int> {0, 600} << 2 << "Upload aborted";
    }
    void closedPortRetriesForTheListedDelays()
    {
        QFETCH(QList<int>, delays);
        QFETCH(int, abortAfter);
        QFETCH(QString, reason);
        const QString path = makeFile(m_files, QStringLiteral("closed.bin"), randomBytes(100, 13));
        const QUrl closed(QStringLiteral("http://127.0.0.1:%1/files").arg(closedLoopbackPort()));
        HookedUploader uploader(closed.toString());
        uploader.setRetryDelays(delays);
        uploader.setResumable(true);
        QElapsedTimer clock;
        QList<qint64> sentAt;
        uploader.hook = [&](QNetworkRequest&, const HookedUploader::Prepared&) {
            sentAt.append(clock.elapsed());
            // A refusal on loopback comes at once: a third of the wait later, it waits.
            if (sentAt.size() == abortAfter)
                QTimer::singleShot(delays.at(abortAfter - 1) / 3, &uploader, [&] { uploader.abort(); });
        };
        QSignalSpy failed(&uploader, &TusUploader::uploadFailed);
        clock.start();
        QVERIFY(uploader.startUploadFile(path, QString()));
        QVERIFY(failed.wait(UploadTimeoutMs));
        QVERIFY2(failed.at(0).at(1).toString().contains(reason), qPrintable(failed.at(0).at(1).toString()));
        QCOMPARE(uploader.getState(), TusState::Error);
        const int attempts = abortAfter ? abortAfter : delays.size() + 1;
        QCOMPARE(sentAt.size(), attempts);
        for (int i = 1; i < attempts; ++i) {
            const qint64 gap = sentAt.at(i) - sentAt.at(i - 1);
            QVERIFY2(gap >= delays.at(i - 1) && gap < delays.at(i - 1) + 1000, qPrintable(QString::number(gap)));
        }
        if (abortAfter) {
            QVERIFY(!failed.wait(2 * delays.last()));
            QCOMPARE(sentAt.size(), attempts);
            uploader.abort(); // nothing runs: no second signal
            QCOMPARE(failed.count(), 1);
        }
    }

    // abort() mid-upload: the server keeps the upload, and so do the settings, unless it
    // terminates, which deletes both. A new uploader then goes on from the server's offset,
    // or creates the upload anew when the server has lost it.
    void abortMidUploadThenStartAgain_data()
    {
        QTest::addColumn<bool>("terminate");
        QTest::addColumn<QByteArray>("onServer"); // what then happens to the upload there
        QTest::newRow("abort") << false << QByteArray();
        QTest::newRow("abort, then the server loses the upload") << false << QByteArray("deleted");
        QTest::newRow("abort, then the server's length differs") << false << QByteArray("length");
        QTest::newRow("abort and terminate") << true << QByteArray();
    }
    void abortMidUploadThenStartAgain()
    {
        QFETCH(bool, terminate);
        QFETCH(QByteArray, onServer);
        const bool anew = terminate || !onServer.isEmpty();
        const int chunk = 64 * 1024;
        const QByteArray contents = randomBytes(5 * chunk, 14);
        const QString path = makeFile(m_files, QStringLiteral("aborted.bin"), contents);
        HookedUploader uploader(m_server.creationUrl());
        uploader.setChunkSize(chunk);
        uploader.setResumable(true);
        uploader.setAuthentication(QStringLiteral("token"), QString());
        QSignalSpy failed(&uploader, &TusUploader::uploadFailed);
        connect(&uploader, &TusUploader::uploadProgress, this, [&](const QString&, qint64, qint64 sent) {
            if (sent >= 2 * chunk)
                uploader.abort(terminate);
        });
        QVERIFY(uploader.startUploadFile(path, QString()));
        QVERIFY(failed.wait(UploadTimeoutMs));
        QVERIFY(!failed.wait(100)); // once
        QCOMPARE(failed.at(0).at(1).toString(), QStringLiteral("Upload aborted"));
        QCOMPARE(uploader.getState(), TusState::Error);
        const QStringList kept = QSettings().allKeys();
        QCOMPARE(kept.size(), terminate ? 0 : 1);
        QVERIFY(terminate || (kept.first().startsWith("TusUploads/") && QSettings().value(kept.first()) == uploader.serverFilePath()));
        if (terminate) {
            QTRY_COMPARE_WITH_TIMEOUT(m_server.requests("DELETE").size(), 1, UploadTimeoutMs);
            QCOMPARE(uploader.count("DELETE"), 1);
            QCOMPARE(m_server.requests("DELETE").at(0).header("Authorization"), QByteArray("Bearer token"));
        }

        veltrax::NetManager manager;
        const auto ask = [&](bool head) {
            QNetworkRequest request {QUrl(uploader.serverFilePath())};
            request.setRawHeader("Tus-Resumable", "1.0.0");
            QNetworkReply* reply = head ? manager->head(request) : manager->deleteResource(request);
            QSignalSpy answered(reply, &QNetworkReply::finished);
            answered.wait(UploadTimeoutMs);
            reply->deleteLater();
            return reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        };
        const QString id = TusServerProcess::idOfUploadUrl(uploader.serverFilePath());
        if (onServer == "deleted")
            QCOMPARE(ask(false), 204);
        if (onServer == "length") {
            QJsonObject info = m_server.storedInfo(id);
            info.insert(QStringLiteral("size"), contents.size() + 1);
            QVERIFY(writeFile(m_server.storeDirectory() + QLatin1Char('/') + id + QStringLiteral(".json"), QJsonDocument(info).toJson()));
        }
        const int status = ask(true);
        QVERIFY2(terminate || onServer == "deleted" ? status == 404 || status == 410 : status == 200, qPrintable(QString::number(status)));

        HookedUploader again(m_server.creationUrl());
        again.setChunkSize(chunk);
        again.setResumable(true);
        QSignalSpy finished(&again, &TusUploader::uploadFinished);
        QVERIFY(again.startUploadFile(path, QString()));
        QVERIFY(finished.wait(UploadTimeoutMs));
        QCOMPARE(again.count("HEAD"), terminate ? 0 : 1);
        QCOMPARE(again.creations(), anew ? 1 : 0);
        QCOMPARE(again.patchOffsets().value(0) > 0, !anew);
        QVERIFY(m_server.storedData(TusServerProcess::idOfUploadUrl(again.serverFilePath())) == contents);
        QVERIFY(QSettings().allKeys().isEmpty()); // success forgets the URL
    }
};

QTEST_GUILESS_MAIN(TusUploaderRetryTest)
#include "tusuploaderretrytest.moc"
