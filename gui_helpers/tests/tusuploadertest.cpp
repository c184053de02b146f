// SPDX-License-Identifier: MIT
//
// TusUploader against the real tus server on 127.0.0.1. Cases that wait out the retry
// delay live in tusuploaderretrytest.cpp.
#include "tusuploader.h"
#include "hookeduploader.h"
#include "testhelpers.h"
#include "tusserverprocess.h"
#include "variant.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QPointer>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <atomic>
#include <chrono>
#include <memory>
#include <sstream>
#include <thread>

namespace
{
constexpr int UploadTimeoutMs = 15000;

/**
 * Whether another thread can take the uploader's lock now. The probe is left behind when it
 * blocks (a future would wait for it on destruction): it ends once the lock is let go.
 */
bool lockIsFree(const TusUploader* uploader)
{
    const auto done = std::make_shared<std::atomic<bool>>(false);
    std::thread([uploader, done] {
        uploader->getState();
        done->store(true);
    }).detach();
    QDeadlineTimer deadline(5000);
    while (!done->load() && !deadline.hasExpired())
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return done->load();
}
} // namespace

class TusUploaderTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_files;
    TusServerProcess m_server;

private Q_SLOTS:
    void initTestCase() { QVERIFY2(m_server.start(), qPrintable(m_server.errorString())); }

    void init() { m_server.clearRequests(); }

    void stateStreamsAsNameAndNumber_data()
    {
        QTest::addColumn<int>("state");
        QTest::addColumn<QString>("text");
        const char* names[] = {"Init", "Start", "Patch", "Finish", "Error"};
        for (int state = 0; state < 5; ++state)
            QTest::newRow(names[state]) << state << QStringLiteral("TusState::%1(%2)").arg(QLatin1String(names[state])).arg(state);
        QTest::newRow("out of range") << 7 << "Unknown case: 7";
        QTest::newRow("negative") << -1 << "Unknown case: -1";
    }

    void stateStreamsAsNameAndNumber()
    {
        QFETCH(int, state);
        QFETCH(QString, text);
        std::ostringstream out;
        out << static_cast<TusState>(state);
        QCOMPARE(QString::fromStdString(out.str()), text);
    }

    void uploadArrivesByteIdentical_data()
    {
        QTest::addColumn<qint64>("fileSize");
        QTest::addColumn<qint64>("chunkSize");
        QTest::addColumn<QList<qint64>>("offsets");
        QTest::newRow("smaller than a chunk") << qint64(100000) << qint64(0) << QList<qint64> {0};
        QTest::newRow("negative chunk size means the default") << qint64(100000) << qint64(-7) << QList<qint64> {0};
        QTest::newRow("exact multiple of the chunk size") << qint64(3 * 4096) << qint64(4096) << QList<qint64> {0, 4096, 8192};
        QTest::newRow("several chunks and a short last one")
            << qint64(10 * 1000 + 7) << qint64(1000) << QList<qint64> {0, 1000, 2000, 3000, 4000, 5000, 6000, 7000, 8000, 9000, 10000};
        QTest::newRow("one byte per chunk") << qint64(3) << qint64(1) << QList<qint64> {0, 1, 2};
        QTest::newRow("empty file") << qint64(0) << qint64(0) << QList<qint64> {};
    }

    void uploadArrivesByteIdentical()
    {
        QFETCH(qint64, fileSize);
        QFETCH(qint64, chunkSize);
        QFETCH(QList<qint64>, offsets);

        const QByteArray contents = randomBytes(fileSize, quint32(fileSize));
        const QString path = makeFile(m_files, QStringLiteral("data.bin"), contents);
        QVERIFY(!path.isEmpty());

        HookedUploader uploader(m_server.creationUrl());
        uploader.setChunkSize(chunkSize);
        QCOMPARE(uploader.chunkSize(), chunkSize < 1 ? qint64(33554432) : chunkSize);
        QSignalSpy finished(&uploader, &TusUploader::uploadFinished);
        QSignalSpy failed(&uploader, &TusUploader::uploadFailed);
        QSignalSpy progress(&uploader, &TusUploader::uploadProgress);
        // Slots may call back: the uploader's lock is never held while it signals.
        bool lockFree = true;
        const auto checkLock = [&] {
            lockFree = lockFree && lockIsFree(&uploader);
        };
        connect(&uploader, &TusUploader::uploadProgress, this, checkLock);
        connect(&uploader, &TusUploader::uploadFinished, this, checkLock);
        QVERIFY(uploader.startUploadFile(path, QString()));
        QCOMPARE(uploader.getState(), TusState::Start);

        QVERIFY(finished.wait(UploadTimeoutMs));
        QCOMPARE(failed.count(), 0);
        QCOMPARE(finished.count(), 1);
        QCOMPARE(finished.at(0).at(0).toString(), path);
        QCOMPARE(uploader.getState(), TusState::Finish);
        QVERIFY(lockFree);

        const QString id = TusServerProcess::idOfUploadUrl(uploader.serverFilePath());
        QCOMPARE(uploader.serverFilePath(), m_server.creationUrl() + QLatin1Char('/') + id);
        QVERIFY(m_server.storedData(id) == contents); // Upload-Length: requestsCarryTheirHeadersAndMetadata
        // The server refuses an empty Upload-Metadata (400): without metadata none is sent.
        QVERIFY(!m_server.requests("POST").at(0).hasHeader("Upload-Metadata"));

        QCOMPARE(uploader.patchOffsets(), offsets);

        // Progress counts the whole file, but its total is the current chunk's body.
        qint64 lastSent = 0;
        for (const auto& signal : qAsConst(progress)) {
            const qint64 sent = signal.at(2).toLongLong();
            QVERIFY(sent >= lastSent && sent <= fileSize);
            QVERIFY(signal.at(1).toLongLong() <= qMin(uploader.chunkSize(), fileSize));
            QCOMPARE(signal.at(3).toInt(), int(sent * 100 / fileSize));
            QVERIFY(signal.at(4).toLongLong() >= 0);
            lastSent = sent;
        }
        QCOMPARE(lastSent, fileSize);
    }

    void requestsCarryTheirHeadersAndMetadata_data()
    {
        QTest::addColumn<QString>("token");
        QTest::addColumn<QString>("key");
        QTest::newRow("both") << QStringLiteral("eyJhbGciOi.payload.sig") << QStringLiteral("0123abcd");
        QTest::newRow("bearer token only") << QStringLiteral("tok") << QString();
        QTest::newRow("subscription key only") << QString() << QStringLiteral("sub-key");
        QTest::newRow("neither") << QString() << QString();
    }

    void requestsCarryTheirHeadersAndMetadata()
    {
        QFETCH(QString, token);
        QFETCH(QString, key);
        const QString path = makeFile(m_files, QStringLiteral("order.bin"), randomBytes(2500, 1));
        // Metadata goes as the JSON text of each value: strings keep their quotes and are not
        // escaped; the text "null" is bare, and so is the empty variant, which has no JSON text.
        const std::pair<veltrax::Variant, QString> values[] = {{veltrax::Variant(std::string("Messung \"Nord\" äöü.csv")), "\"Messung \"Nord\" äöü.csv\""},
            {veltrax::Variant(42), "42"},
            {veltrax::Variant(static_cast<long long>(-5000000000LL)), "-5000000000"},
            {veltrax::Variant(2.5), "2.5"},
            {veltrax::Variant(true), "true"},
            {veltrax::Variant("null"), "null"},
            {veltrax::Variant(), "null"}};
        QString metaData;
        QMap<QString, QString> expected;
        for (const auto& value : values) {
            const QString name = QStringLiteral("key%1").arg(expected.size());
            TusUploader::appendMetaData(metaData, name, value.first);
            expected.insert(name, value.second);
        }
        HookedUploader uploader(m_server.creationUrl());
        uploader.setChunkSize(1000);
        uploader.setAuthentication(token, key);
        QSignalSpy finished(&uploader, &TusUploader::uploadFinished);
        QVERIFY(uploader.startUploadFile(path, metaData));
        QVERIFY(finished.wait(UploadTimeoutMs));

        // The order is ours up to the access manager, which adds its own headers and
        // moves Content-Length where it likes; the values are what must arrive.
        QList<QByteArray> authentication;
        if (!key.isEmpty())
            authentication.append("Ocp-Apim-Subscription-Key");
        if (!token.isEmpty())
            authentication.append("Authorization");
        QCOMPARE(uploader.prepared.size(), 4); // one POST, three PATCHes
        QCOMPARE(uploader.prepared.at(0).headerNames,
            QList<QByteArray>({"Tus-Resumable", "Upload-Metadata"}) + authentication + QList<QByteArray>({"Upload-Length"}));
        QCOMPARE(uploader.prepared.at(1).headerNames,
            QList<QByteArray>({"Tus-Resumable", "Connection", "Upload-Offset", "Content-Length", "Content-Type"}) + authentication);

        const auto posts = m_server.requests("POST");
        QCOMPARE(posts.size(), 1);
        QCOMPARE(posts.at(0).header("Tus-Resumable"), QByteArray("1.0.0"));
        QCOMPARE(posts.at(0).header("Upload-Length"), QByteArray("2500"));
        QCOMPARE(posts.at(0).header("Content-Length"), QByteArray("0"));
        const auto patches = m_server.requests("PATCH");
        QCOMPARE(patches.size(), 3);
        QCOMPARE(patches.at(0).header("Tus-Resumable"), QByteArray("1.0.0"));
        QCOMPARE(patches.at(0).header("Connection").toLower(), QByteArray("keep-alive"));
        QCOMPARE(patches.at(0).header("Content-Type"), QByteArray("application/offset+octet-stream"));
        for (const auto& request : m_server.requests()) {
            QCOMPARE(request.header("Authorization"), token.isEmpty() ? QByteArray() : "Bearer " + token.toUtf8());
            QCOMPARE(request.header("Ocp-Apim-Subscription-Key"), key.toUtf8());
        }
        QCOMPARE(m_server.storedMetadata(TusServerProcess::idOfUploadUrl(uploader.serverFilePath())), expected);
    }

    void schemeRelativeLocationTakesTheServerScheme()
    {
        TusServerProcess server;
        server.setSchemeRelativeLocations(true);
        QVERIFY2(server.start(), qPrintable(server.errorString()));
        const QByteArray contents = randomBytes(3000, 3);
        const QString path = makeFile(m_files, QStringLiteral("relative.bin"), contents);

        TusUploader uploader(server.creationUrl());
        uploader.setChunkSize(1024);
        QSignalSpy finished(&uploader, &TusUploader::uploadFinished);
        QVERIFY(uploader.startUploadFile(path, QString()));
        QVERIFY(finished.wait(UploadTimeoutMs));

        const QStringList ids = server.uploadIds();
        QCOMPARE(ids.size(), 1);
        QCOMPARE(uploader.serverFilePath(), QStringLiteral("http://127.0.0.1:%1/files/%2").arg(server.port()).arg(ids.first()));
        QVERIFY(server.storedData(ids.first()) == contents);
    }

    // Each fault ends the upload with a reason and no further chunk; it may then start again.
    void faultEndsInUploadFailed_data()
    {
        QTest::addColumn<QByteArray>("fault");
        QTest::addColumn<QList<qint64>>("offsets"); // of the chunks sent until then
        QTest::newRow("creation refused") << QByteArray("bad-length") << QList<qint64>();
        QTest::newRow("upload URL the server does not know") << QByteArray("unknown-url") << QList<qint64> {0, 1000};
        QTest::newRow("offset the server did not expect") << QByteArray("wrong-offset") << QList<qint64> {0, 1000, 2000};
        // Reading on would go past the end of the mapped file.
        QTest::newRow("file shrinks during the upload") << QByteArray("shrink") << QList<qint64> {0};
    }

    void faultEndsInUploadFailed()
    {
        QFETCH(QByteArray, fault);
        QFETCH(QList<qint64>, offsets);
        const QString path = makeFile(m_files, QStringLiteral("refused.bin"), randomBytes(3000, 4));
        HookedUploader uploader(m_server.creationUrl());
        uploader.setChunkSize(1000);
        uploader.hook = [&](QNetworkRequest& request, const HookedUploader::Prepared& prepared) {
            if (fault == "bad-length" && !prepared.patch)
                request.setRawHeader("Upload-Length", "-1");
            if (fault == "unknown-url" && prepared.patch && prepared.offset == 1000)
                request.setUrl(QUrl(m_server.creationUrl() + QStringLiteral("/0123456789abcdef")));
            if (fault == "wrong-offset" && prepared.patch && prepared.offset == 2000)
                request.setRawHeader("Upload-Offset", "1000");
            if (fault == "shrink" && prepared.patch && prepared.offset == 0)
                QFile::resize(path, 1010);
        };
        QSignalSpy finished(&uploader, &TusUploader::uploadFinished);
        QSignalSpy failed(&uploader, &TusUploader::uploadFailed);
        bool lockFree = false;
        connect(&uploader, &TusUploader::uploadFailed, this, [&] {
            lockFree = lockIsFree(&uploader);
        });
        QVERIFY(uploader.startUploadFile(path, QString()));
        QVERIFY(failed.wait(UploadTimeoutMs));
        QVERIFY(lockFree);
        QCOMPARE(failed.count(), 1);
        QCOMPARE(failed.at(0).at(0).toString(), path);
        QVERIFY(!failed.at(0).at(1).toString().isEmpty());
        QCOMPARE(uploader.getState(), TusState::Error);
        QCOMPARE(finished.count(), 0);
        QCOMPARE(uploader.patchOffsets(), offsets);

        uploader.hook = nullptr;
        QVERIFY(uploader.startUploadFile(path, QString()));
        QVERIFY(finished.wait(UploadTimeoutMs));
        QCOMPARE(failed.count(), 1);
    }

    void missingFileReturnsFalseWithoutSignal_data()
    {
        QTest::addColumn<QString>("name");
        QTest::newRow("no such file") << "absent.bin";
        QTest::newRow("a directory") << "";
    }

    void missingFileReturnsFalseWithoutSignal()
    {
        QFETCH(QString, name);
        TusUploader uploader(m_server.creationUrl());
        QSignalSpy finished(&uploader, &TusUploader::uploadFinished);
        QSignalSpy failed(&uploader, &TusUploader::uploadFailed);
        QVERIFY(!uploader.startUploadFile(m_files.filePath(name), QString()));
        QCOMPARE(uploader.getState(), TusState::Error);
        QCoreApplication::processEvents();
        QCOMPARE(finished.count() + failed.count(), 0);
        QVERIFY(m_server.requests().isEmpty());
    }

    void secondStartWhileRunningIsRefused()
    {
        const QByteArray first = randomBytes(5000, 5);
        const QByteArray second = randomBytes(300, 6);
        const QString firstPath = makeFile(m_files, QStringLiteral("first.bin"), first);
        const QString secondPath = makeFile(m_files, QStringLiteral("second.bin"), second);
        HookedUploader uploader(m_server.creationUrl());
        uploader.setChunkSize(1000);
        QSignalSpy finished(&uploader, &TusUploader::uploadFinished);

        bool refusedWhilePatching = false;
        uploader.hook = [&](QNetworkRequest&, const HookedUploader::Prepared& prepared) {
            if (prepared.patch && prepared.offset == 2000)
                refusedWhilePatching = !uploader.startUploadFile(secondPath, QString()) && uploader.getState() == TusState::Patch;
        };
        QVERIFY(uploader.startUploadFile(firstPath, QString()));
        QVERIFY(!uploader.startUploadFile(secondPath, QString()));
        QCOMPARE(uploader.getState(), TusState::Start);
        // The file is checked before the running upload: a missing one sets Error, and the
        // upload still goes on to the end.
        QVERIFY(!uploader.startUploadFile(m_files.filePath(QStringLiteral("absent.bin")), QString()));
        QCOMPARE(uploader.getState(), TusState::Error);

        QVERIFY(finished.wait(UploadTimeoutMs));
        QVERIFY(refusedWhilePatching);
        QCOMPARE(finished.at(0).at(0).toString(), firstPath);
        QVERIFY(m_server.storedData(TusServerProcess::idOfUploadUrl(uploader.serverFilePath())) == first);

        uploader.hook = nullptr;
        QVERIFY(uploader.startUploadFile(secondPath, QString()));
        QVERIFY(finished.wait(UploadTimeoutMs));
        QCOMPARE(finished.at(1).at(0).toString(), secondPath);
        QVERIFY(m_server.storedData(TusServerProcess::idOfUploadUrl(uploader.serverFilePath())) == second);
        QCOMPARE(m_server.requests("POST").size(), 2);
    }

    void uploaderMayGoWhenItIsDone_data()
    {
        QTest::addColumn<bool>("succeed");
        QTest::addColumn<bool>("deletedBySlot");
        QTest::newRow("delete on finished after success") << true << false;
        QTest::newRow("delete on finished after failure") << false << false;
        QTest::newRow("deleted by a slot of uploadFinished") << true << true;
        QTest::newRow("deleted by a slot of uploadFailed") << false << true;
    }

    void uploaderMayGoWhenItIsDone()
    {
        QFETCH(bool, succeed);
        QFETCH(bool, deletedBySlot);
        const QString path = makeFile(m_files, QStringLiteral("done.bin"), randomBytes(2000, 9));
        QPointer<HookedUploader> uploader = new HookedUploader(m_server.creationUrl());
        uploader->setChunkSize(1000);
        if (!succeed) {
            uploader->hook = [](QNetworkRequest& request, const HookedUploader::Prepared& prepared) {
                if (prepared.patch)
                    request.setRawHeader("Upload-Offset", "7");
            };
        }
        QSignalSpy finished(uploader.data(), &TusUploader::uploadFinished);
        QSignalSpy failed(uploader.data(), &TusUploader::uploadFailed);
        if (deletedBySlot) {
            const auto destroy = [&] {
                delete uploader.data();
            };
            connect(uploader.data(), &TusUploader::uploadFinished, this, destroy);
            connect(uploader.data(), &TusUploader::uploadFailed, this, destroy);
        } else {
            uploader->setDeleteOnFinished(true);
        }
        QVERIFY(uploader->startUploadFile(path, QString()));
        QTRY_VERIFY_WITH_TIMEOUT(!uploader, UploadTimeoutMs);
        QCOMPARE(finished.count(), succeed ? 1 : 0);
        QCOMPARE(failed.count(), succeed ? 0 : 1);
    }

    void destroyingWhilePatchingStopsTheRequest()
    {
        // The shared access manager outlives the uploader, so its request must be stopped.
        veltrax::NetManager keepAlive;
        const QByteArray contents = randomBytes(8 << 20, 10);
        const QString path = makeFile(m_files, QStringLiteral("big.bin"), contents);
        QPointer<HookedUploader> uploader = new HookedUploader(m_server.creationUrl());
        uploader->setChunkSize(4 << 20);
        QSignalSpy progress(uploader.data(), &TusUploader::uploadProgress);
        QVERIFY(uploader->startUploadFile(path, QString()));
        QTRY_VERIFY_WITH_TIMEOUT(uploader->getState() == TusState::Patch, UploadTimeoutMs);
        delete uploader.data();
        QTest::qWait(200);
        TusUploader next(m_server.creationUrl());
        QSignalSpy finished(&next, &TusUploader::uploadFinished);
        QVERIFY(next.startUploadFile(path, QString()));
        QVERIFY(finished.wait(UploadTimeoutMs));
        QVERIFY(m_server.storedData(TusServerProcess::idOfUploadUrl(next.serverFilePath())) == contents);
    }
};

QTEST_GUILESS_MAIN(TusUploaderTest)
#include "tusuploadertest.moc"
