// SPDX-License-Identifier: MIT
// The tus server dying while an upload runs and coming back with its store. Killed between
// chunks, twice in one upload, the upload must end complete and byte-identical, never hang.
#include "testhelpers.h"
#include "tusserverprocess.h"
#include "tusuploader.h"

#include <QNetworkRequest>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include <functional>

namespace
{
// Two waits of the fixed 5 s retry delay plus ample time for the rest.
constexpr int UploadTimeoutMs = 60000;

/** Lets the test act just before each chunk is sent. */
class KillingUploader : public TusUploader
{
public:
    using TusUploader::TusUploader;
    QNetworkRequest& prepareRequest(QNetworkRequest& request) override
    {
        if (request.hasRawHeader("Upload-Offset")) {
            const qint64 offset = request.rawHeader("Upload-Offset").toLongLong();
            offsets.append(offset);
            if (beforeChunk)
                beforeChunk(offset);
        }
        return request;
    }
    std::function<void(qint64 offset)> beforeChunk;
    QList<qint64> offsets;
};
}

class TusFaultTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QString why;
        if (!TusServerProcess::isInstalled(&why))
            QFAIL(qPrintable(why));
    }

    void killedAndRestartedTwiceBetweenChunks()
    {
        TusServerProcess server;
        QVERIFY2(server.start(), qPrintable(server.errorString()));
        const int chunk = 64 * 1024;
        const QByteArray contents = randomBytes(5 * chunk + 77, 23);
        const QString path = makeFile(m_files, QStringLiteral("twice.bin"), contents);

        KillingUploader uploader(server.creationUrl());
        uploader.setChunkSize(chunk);
        // The server dies as the second and again as the fourth chunk is about to go, and
        // comes back a second later, well before the uploader's retry.
        QList<qint64> killedAt;
        QString serverError;
        uploader.beforeChunk = [&](qint64 offset) {
            if ((offset != chunk && offset != 3 * chunk) || killedAt.contains(offset))
                return;
            killedAt.append(offset);
            if (!server.kill())
                serverError = server.errorString();
            QTimer::singleShot(1000, this, [&] {
                if (!server.start())
                    serverError = server.errorString();
            });
        };
        QSignalSpy finished(&uploader, &TusUploader::uploadFinished);
        QSignalSpy failed(&uploader, &TusUploader::uploadFailed);
        QVERIFY(uploader.startUploadFile(path, QString()));

        QTRY_VERIFY_WITH_TIMEOUT(finished.count() + failed.count() > 0, UploadTimeoutMs);
        QVERIFY2(serverError.isEmpty(), qPrintable(serverError));
        QCOMPARE(failed.count(), 0);
        QCOMPARE(uploader.getState(), TusState::Finish);
        QCOMPARE(killedAt, (QList<qint64> {chunk, 3 * chunk}));
        // Each lost chunk went again at its old offset, and nothing went twice otherwise.
        QCOMPARE(uploader.offsets, (QList<qint64> {0, chunk, chunk, 2 * chunk, 3 * chunk, 3 * chunk, 4 * chunk, 5 * chunk}));
        QVERIFY(server.storedData(TusServerProcess::idOfUploadUrl(uploader.serverFilePath())) == contents);
    }

private:
    QTemporaryDir m_files;
};

QTEST_GUILESS_MAIN(TusFaultTest)
#include "tusfaulttest.moc"
