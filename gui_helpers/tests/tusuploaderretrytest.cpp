// SPDX-License-Identifier: MIT
//
// TusUploader resending a step after a transport failure. Each case waits out the fixed
// 5000 ms retry delay once, so they are kept together here, apart from the quick cases.
#include "hookeduploader.h"
#include "testhelpers.h"
#include "tusserverprocess.h"
#include "tusuploader.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

namespace
{
// The retry delay plus ample time for the rest.
constexpr int RetryUploadTimeoutMs = 30000;
// Lower bound for the measured gap between a failed step and its resend: the delay less
// the slack a coarse Qt timer may take (5%), and some more.
constexpr qint64 LeastRetryGapMs = 4500;
} // namespace

class TusUploaderRetryTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_files;

private Q_SLOTS:
    void serverKilledDuringPatchingGetsTheSameChunkAgain()
    {
        TusServerProcess server;
        QVERIFY2(server.start(), qPrintable(server.errorString()));
        const int chunk = 64 * 1024;
        const QByteArray contents = randomBytes(3 * chunk + 123, 11);
        const QString path = makeFile(m_files, QStringLiteral("killed.bin"), contents);

        HookedUploader uploader(server.creationUrl());
        uploader.setChunkSize(chunk);
        QElapsedTimer sinceKill;
        qint64 retryGap = -1;
        QString restartError;
        // The server dies just as the second chunk is about to go, after the first one
        // was stored whole, and comes back on the same port with the same store just as
        // that chunk is resent.
        uploader.hook = [&](QNetworkRequest&, const HookedUploader::Prepared& prepared) {
            if (!prepared.patch || prepared.offset != chunk)
                return;
            if (server.isRunning()) {
                if (!server.kill())
                    restartError = server.errorString();
                sinceKill.start();
            } else {
                retryGap = sinceKill.elapsed();
                if (!server.start())
                    restartError = server.errorString();
            }
        };
        QSignalSpy finished(&uploader, &TusUploader::uploadFinished);
        QSignalSpy failed(&uploader, &TusUploader::uploadFailed);
        QVERIFY(uploader.startUploadFile(path, QString()));

        QTRY_VERIFY_WITH_TIMEOUT(!server.isRunning() || !restartError.isEmpty(), RetryUploadTimeoutMs);
        QCOMPARE(uploader.getState(), TusState::Patch);
        QVERIFY(finished.wait(RetryUploadTimeoutMs));
        QVERIFY2(restartError.isEmpty(), qPrintable(restartError));
        QCOMPARE(failed.count(), 0);
        QCOMPARE(uploader.getState(), TusState::Finish);

        QCOMPARE(uploader.patchOffsets(), (QList<qint64> {0, chunk, chunk, 2 * chunk, 3 * chunk}));
        QVERIFY2(retryGap >= LeastRetryGapMs, qPrintable(QString::number(retryGap)));

        const QString id = TusServerProcess::idOfUploadUrl(uploader.serverFilePath());
        QVERIFY(server.storedData(id) == contents);
        // The lost chunk reached the restarted server at its old offset.
        const auto patches = server.requests("PATCH");
        QCOMPARE(patches.size(), 4);
        QCOMPARE(patches.at(1).header("Upload-Offset"), QByteArray::number(chunk));
    }

    void creationIsResentUntilTheServerAnswers()
    {
        TusServerProcess server;
        QVERIFY2(server.start(), qPrintable(server.errorString()));
        QVERIFY(server.stop()); // the port is known, nobody listens on it
        const QByteArray contents = randomBytes(5000, 12);
        const QString path = makeFile(m_files, QStringLiteral("late.bin"), contents);

        HookedUploader uploader(server.creationUrl());
        uploader.setChunkSize(2000);
        QString startError;
        // Up again just before the second attempt.
        uploader.hook = [&](QNetworkRequest&, const HookedUploader::Prepared& prepared) {
            if (!prepared.patch && uploader.creations() == 2 && !server.start())
                startError = server.errorString();
        };
        QSignalSpy finished(&uploader, &TusUploader::uploadFinished);
        QSignalSpy failed(&uploader, &TusUploader::uploadFailed);
        QVERIFY(uploader.startUploadFile(path, QString()));
        QVERIFY(finished.wait(RetryUploadTimeoutMs));
        QVERIFY2(startError.isEmpty(), qPrintable(startError));
        QCOMPARE(failed.count(), 0);
        QCOMPARE(uploader.creations(), 2);
        QCOMPARE(uploader.patchOffsets(), (QList<qint64> {0, 2000, 4000}));
        QVERIFY(server.storedData(TusServerProcess::idOfUploadUrl(uploader.serverFilePath())) == contents);
        QCOMPARE(server.requests("POST").size(), 1);
    }
};

QTEST_GUILESS_MAIN(TusUploaderRetryTest)
#include "tusuploaderretrytest.moc"
