// SPDX-License-Identifier: MIT
//
// Installer downloads: a small HTTP server in this process plays the download host, and
// the real folder dialog and message boxes are answered the way a user would.
#include "autoupdate.h"
#include "autoupdatetesthost.h"
#include "httpresponder.h"
#include "netmanager.h"

#include <QApplication>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QPointer>
#include <QProcess>
#include <QProgressDialog>
#include <QPushButton>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

#include <memory>

namespace
{
QProgressDialog* visibleProgressDialog()
{
    for (QWidget* widget : QApplication::topLevelWidgets()) {
        if (auto* dialog = qobject_cast<QProgressDialog*>(widget); dialog && dialog->isVisible())
            return dialog;
    }
    return nullptr;
}
} // namespace

class AutoUpdateDownloadTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        // The folder dialog must be Qt's own so that the test can answer it.
        QApplication::setAttribute(Qt::AA_DontUseNativeDialogs);
        qRegisterMetaType<QNetworkReply*>();
        QVERIFY(m_http.listen());

        // Keys and signatures by the real minisign tool; its default trusted comment names the file.
        m_installer = randomBytes(200 * 1024, 7);
        QFile file(m_keys.filePath(QStringLiteral("setup.run")));
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(m_installer) == m_installer.size());
        file.close();
        const QList<QStringList> runs = {
            {"-G", "-W", "-p", "a.pub", "-s", "a.key"},
            {"-G", "-W", "-p", "b.pub", "-s", "b.key"},
            {"-S", "-s", "a.key", "-m", "setup.run"},
            {"-S", "-l", "-s", "a.key", "-m", "setup.run", "-x", "legacy.minisig"},
            {"-S", "-s", "b.key", "-m", "setup.run", "-x", "otherkey.minisig"},
            {"-S", "-s", "a.key", "-m", "setup.run", "-x", "otherfile.minisig", "-t", "timestamp:1\tfile:old.run\thashed"},
        };
        for (const QStringList& arguments : runs) {
            QProcess minisign;
            minisign.setWorkingDirectory(m_keys.path());
            minisign.start(QStringLiteral("minisign"), arguments);
            QVERIFY2(minisign.waitForFinished(30000) && minisign.exitCode() == 0, minisign.readAllStandardError().constData());
        }
    }
    void init()
    {
        isolateSettings();
        m_host = TestHost();
        m_journal = std::make_unique<Journaller>(m_dir.filePath(QStringLiteral("journal.log")).toStdString(), true, JLL_TRACE);
        m_host.journal = m_journal.get();
        m_autoUpdate = std::make_unique<AutoUpdate>(&m_host);
    }
    void cleanup()
    {
        m_autoUpdate.reset();
        m_journal.reset();
    }

    void okSavesExactBytesIntoChosenFolder_data()
    {
        QTest::addColumn<QByteArray>("path");
        QTest::addColumn<QString>("fileName");

        QTest::newRow("plain") << QByteArray("/files/setup-1.3.0.bin") << "setup-1.3.0.bin";
        QTest::newRow("query is not part of the name") << QByteArray("/files/setup.bin?token=abc") << "setup.bin";
        QTest::newRow("encoded slashes stay inside the folder") << QByteArray("/files/..%2F..%2Fescape.bin") << "escape.bin";
        QTest::newRow("redirect to a mirror") << QByteArray("/files/latest.bin") << "latest.bin";
    }
    void okSavesExactBytesIntoChosenFolder()
    {
        QFETCH(QByteArray, path);
        QFETCH(QString, fileName);

        const QByteArray payload = randomBytes(300 * 1024, 1);
        if (fileName == QLatin1String("latest.bin")) {
            m_http.routes.insert(path, Route {302, "Found", {}, "Location: " + m_http.url("/mirror/latest.bin").toLatin1() + "\r\n"});
            path = "/mirror/latest.bin";
        }
        m_http.routes.insert(path, Route {200, "OK", payload});
        QTemporaryDir root;
        QVERIFY(QDir(root.path()).mkpath(QStringLiteral("a/b")));
        const QString folder = root.filePath(QStringLiteral("a/b"));
        DialogAnswerer answerer(folder);

        QVERIFY(startDownload(m_http.url(path)));
        QProgressDialog* progress = visibleProgressDialog();
        QVERIFY(progress && progress->isModal());
        QCOMPARE(progress->labelText(), QStringLiteral("Downloading update, this may take a few minutes"));

        QFile saved(QDir(folder).filePath(fileName));
        QTRY_VERIFY_WITH_TIMEOUT(saved.size() == payload.size(), 10000);
        QVERIFY(saved.open(QIODevice::ReadOnly));
        QVERIFY(saved.readAll() == payload);
        QCOMPARE(answerer.folderDialogs, QStringList {"Select download folder"});
        QVERIFY(answerer.messages.isEmpty());
        QVERIFY(!visibleProgressDialog());
        QCOMPARE(QDir(folder).entryList(QDir::Files), QStringList {fileName});
        QCOMPARE(QDir(root.path()).entryList(QDir::Files), QStringList());
    }
    void unwritableOrUnchosenFolderWritesNothing()
    {
        m_http.routes.insert("/files/blocked.bin", Route {200, "OK", "installer"});
        // A directory of that name stands where the file would go.
        QTemporaryDir root;
        QVERIFY(QDir(root.path()).mkdir(QStringLiteral("blocked.bin")));
        QSignalSpy finished(m_net.qman(), &QNetworkAccessManager::finished);

        for (const QString& folder : {QString(), root.path()}) {
            DialogAnswerer answerer(folder);
            QVERIFY(startDownload(m_http.url("/files/blocked.bin")));
            QTRY_COMPARE_WITH_TIMEOUT(answerer.folderDialogs.size(), 1, 10000);
            QVERIFY(answerer.messages.isEmpty());
        }
        QCOMPARE(finished.count(), 2);
        QCOMPARE(QDir(root.path()).entryList(QDir::Files), QStringList());
        m_journal->flush();
        const QString line = QStringLiteral("[ERROR] replyFinished Failed to create file %1/blocked.bin\n").arg(root.path());
        QCOMPARE(QString::fromUtf8(readFile(QString::fromStdString(m_journal->filename()))).count(line), 1);
    }
    void failuresShowTheirMessageOnlyWhenAllowed_data()
    {
        QTest::addColumn<int>("status"); // 0: nobody listens
        QTest::addColumn<QByteArray>("reason");
        QTest::addColumn<bool>("allowed");
        QTest::addColumn<QString>("expected"); // %1 is the url

        // One silent row: every kind of failure passes the same permission check.
        QTest::newRow("404 shown") << 404 << QByteArray("Not Found") << true << "Update file not found at %1";
        QTest::newRow("403 shown") << 403 << QByteArray("Forbidden") << true << "Server returned \"403: Forbidden\" when requesting file at %1";
        QTest::newRow("204 shown") << 204 << QByteArray("No Content") << true << "Server returned \"204: No Content\" when requesting file at %1";
        QTest::newRow("500 shown") << 500 << QByteArray("Internal Server Error") << true
                                   << "Server returned \"500: Internal Server Error\" when requesting file at %1";
        QTest::newRow("refused shown") << 0 << QByteArray() << true << "Connection refused";
        QTest::newRow("refused silent") << 0 << QByteArray() << false << QString();
    }
    void failuresShowTheirMessageOnlyWhenAllowed()
    {
        QFETCH(int, status);
        QFETCH(QByteArray, reason);
        QFETCH(bool, allowed);
        QFETCH(QString, expected);

        QString url = QStringLiteral("http://127.0.0.1:%1/files/setup.bin").arg(closedLoopbackPort());
        if (status != 0) {
            const QByteArray path = "/status/" + QByteArray::number(status);
            m_http.routes.insert(path, Route {status, reason, status == 204 ? "" : "nothing for you"});
            url = m_http.url(path);
        }
        m_autoUpdate->setAllowMessageBoxes(allowed);
        DialogAnswerer answerer(QDir::tempPath()); // must never be asked
        QSignalSpy finished(m_net.qman(), &QNetworkAccessManager::finished);

        QVERIFY(startDownload(url));
        QTRY_COMPARE_WITH_TIMEOUT(finished.count(), 1, 10000);
        if (allowed) {
            QTRY_COMPARE(answerer.messages.size(), 1);
            QCOMPARE(answerer.messages.first(),
                QStringLiteral("Failed to download update|") + (expected.contains(QLatin1String("%1")) ? expected.arg(url) : expected));
        } else {
            QTest::qWait(50); // a box would have been found by now
            QVERIFY(answerer.messages.isEmpty());
        }
        QVERIFY(!visibleProgressDialog());
        QVERIFY(answerer.folderDialogs.isEmpty());
    }
    void cancelAbortsQuietly()
    {
        // Qt reports progress at most every 100 ms, so it is the second piece that shows.
        m_http.routes.insert("/files/huge.bin", Route {200, "OK", randomBytes(1000000, 2), {}, {1000, 1500}});
        m_autoUpdate->setAllowMessageBoxes(true);
        DialogAnswerer answerer(QDir::tempPath()); // must never be asked
        QNetworkReply::NetworkError error = QNetworkReply::NoError;
        // Its own context object: the lambda must not outlive `error`.
        QObject context;
        connect(m_net.qman(), &QNetworkAccessManager::finished, &context, [&error](QNetworkReply* reply) {
            error = reply->error();
        });

        QVERIFY(startDownload(m_http.url("/files/huge.bin")));
        QPointer<QProgressDialog> progress = visibleProgressDialog();
        QVERIFY(progress);
        // 2500 of 1000000 bytes: 2.5 per mille, rounded half away from zero.
        QTRY_COMPARE_WITH_TIMEOUT(progress->value(), 3, 10000);
        auto* cancel = progress->findChild<QPushButton*>();
        QCOMPARE(cancel->text(), QStringLiteral("Cancel"));
        cancel->click();
        QTRY_COMPARE(error, QNetworkReply::OperationCanceledError);
        QTRY_VERIFY(!progress);
        QTest::qWait(50);
        QVERIFY(answerer.messages.isEmpty());
        QVERIFY(answerer.folderDialogs.isEmpty());
    }
    // Parsing and verifying each kind of bad signature (tampered trusted comment, truncated lines,
    // bad base64, wrong lengths): minisigntest.cpp. Here: that each outcome reaches the user.
    void downloadsAreChecked_data()
    {
        QTest::addColumn<QString>("signature"); // file served as setup.run.minisig; empty: none
        QTest::addColumn<QString>("key"); // trusted key file; empty: no keys
        QTest::addColumn<bool>("tamper");
        QTest::addColumn<QString>("sizeAndHash"); // "size sha256" release settings; "*" for the right ones
        QTest::addColumn<QString>("refusal"); // empty: saved

        QTest::newRow("signed") << "setup.run.minisig"
                                << "a.pub" << false << ""
                                << "";
        QTest::newRow("signed, legacy form") << "legacy.minisig"
                                             << "a.pub" << false << ""
                                             << "";
        QTest::newRow("signed, size and hash right") << "setup.run.minisig"
                                                     << "a.pub" << false << "*"
                                                     << "";
        QTest::newRow("hash right, no keys") << ""
                                             << "" << false << "*"
                                             << "";
        QTest::newRow("tampered byte") << "setup.run.minisig"
                                       << "a.pub" << true << ""
                                       << "signature";
        QTest::newRow("tampered byte, hash set, no keys") << ""
                                                          << "" << true << "*"
                                                          << "SHA-256";
        QTest::newRow("wrong size, no keys") << ""
                                             << "" << false << "1 "
                                             << "bytes instead of 1";
        QTest::newRow("other key") << "otherkey.minisig"
                                   << "a.pub" << false << ""
                                   << "key";
        QTest::newRow("only key malformed: nothing trusted") << "setup.run.minisig"
                                                             << "setup.run" << false << ""
                                                             << "key";
        QTest::newRow("comment names another file") << "otherfile.minisig"
                                                    << "a.pub" << false << ""
                                                    << "old.run";
        QTest::newRow("no signature file") << ""
                                           << "a.pub" << false << ""
                                           << "could not be fetched";
        QTest::newRow("garbage signature file") << "setup.run"
                                                << "a.pub" << false << ""
                                                << "";
    }
    void downloadsAreChecked()
    {
        QFETCH(QString, signature);
        QFETCH(QString, key);
        QFETCH(bool, tamper);
        QFETCH(QString, sizeAndHash);
        QFETCH(QString, refusal);

        QByteArray body = m_installer;
        if (tamper)
            body[1000] = static_cast<char>(body[1000] ^ 1);
        m_http.routes.insert("/checked/setup.run", Route {200, "OK", body});
        m_http.routes.remove("/checked/setup.run.minisig");
        if (!signature.isEmpty())
            m_http.routes.insert("/checked/setup.run.minisig", Route {200, "OK", readFile(m_keys.filePath(signature))});
        if (!key.isEmpty())
            m_autoUpdate->setTrustedUpdateKeys({QString::fromLatin1(readFile(m_keys.filePath(key)))});
        TestRelease release {QStringLiteral("v1_3_0")};
        release.url = m_http.url("/checked/setup.run");
        veltrax::SettingsFile reply = listReply(m_host.product, {release});
        if (!sizeAndHash.isEmpty()) {
            const QString size = sizeAndHash == QLatin1String("*") ? QString::number(m_installer.size()) : sizeAndHash.section(' ', 0, 0);
            reply.setSetting(m_host.product.toStdString() + ".v1_3_0.size", veltrax::Variant(size.toStdString()));
            if (sizeAndHash == QLatin1String("*"))
                reply.setSetting(m_host.product.toStdString() + ".v1_3_0.sha256",
                    veltrax::Variant(QCryptographicHash::hash(m_installer, QCryptographicHash::Sha256).toHex().toUpper().toStdString()));
        }
        QTemporaryDir folder;
        m_autoUpdate->setDownloadFolder(folder.path());
        m_autoUpdate->setAllowMessageBoxes(true);
        DialogAnswerer answerer {QString()}; // no folder dialog may show
        QSignalSpy saved(m_autoUpdate.get(), &AutoUpdate::installerSaved);
        QSignalSpy failed(m_autoUpdate.get(), &AutoUpdate::downloadFailed);

        QVERIFY(deliverListReply(m_autoUpdate.get(), reply) && m_autoUpdate->updateToVersion(release.label, nullptr));
        QTRY_COMPARE_WITH_TIMEOUT(saved.count() + failed.count(), 1, 10000);
        QTest::qWait(20);
        QCOMPARE(saved.count() + failed.count(), 1);
        QVERIFY(answerer.folderDialogs.isEmpty());
        if (saved.count() == 1 && refusal.isEmpty() && signature != QLatin1String("setup.run")) {
            QCOMPARE(saved.first().first().toString(), folder.filePath(QStringLiteral("setup.run")));
            QVERIFY(readFile(folder.filePath(QStringLiteral("setup.run"))) == m_installer);
            QVERIFY(answerer.messages.isEmpty());
            return;
        }
        QCOMPARE(failed.count(), 1);
        const QString reason = failed.first().first().toString();
        QVERIFY2(reason.startsWith(QLatin1String("The downloaded file could not be verified: ")) && reason.contains(refusal), qPrintable(reason));
        QTRY_COMPARE(answerer.messages, QStringList {QStringLiteral("Failed to download update|") + reason});
        QCOMPARE(QDir(folder.path()).entryList(QDir::Files), QStringList());
        m_journal->flush();
        QVERIFY(readFile(QString::fromStdString(m_journal->filename())).contains("Refused " + release.url.toUtf8()));
    }
    void interruptedDownloadsResume_data()
    {
        QTest::addColumn<bool>("ranges");
        QTest::addColumn<int>("cuts");
        QTest::addColumn<int>("retries");

        QTest::newRow("cut three times, resumed") << true << 3 << 3;
        QTest::newRow("server ignores Range") << false << 1 << 1;
        QTest::newRow("no retries: the designed box") << true << 1 << 0;
    }
    void interruptedDownloadsResume()
    {
        QFETCH(bool, ranges);
        QFETCH(int, cuts);
        QFETCH(int, retries);

        const QByteArray body = randomBytes(150 * 1024, 9);
        Route route {200, "OK", body};
        route.etag = "\"r1\"";
        route.ranges = ranges;
        route.cuts = cuts;
        route.cutAfter = 40 * 1024;
        m_http.routes.insert("/cut/setup.run", route);
        m_http.requests.clear();
        QTemporaryDir folder;
        m_autoUpdate->setDownloadFolder(folder.path());
        m_autoUpdate->setDownloadRetries(retries);
        m_autoUpdate->setAllowMessageBoxes(true);
        DialogAnswerer answerer {QString()};
        QSignalSpy saved(m_autoUpdate.get(), &AutoUpdate::installerSaved);
        QSignalSpy failed(m_autoUpdate.get(), &AutoUpdate::downloadFailed);

        QVERIFY(startDownload(m_http.url("/cut/setup.run")));
        QTRY_COMPARE_WITH_TIMEOUT(saved.count() + failed.count(), 1, 20000);
        if (retries == 0) {
            // Qt reports the cut as a network error or, now and then, as a short answer.
            QCOMPARE(failed.count(), 1);
            QTRY_COMPARE(answerer.messages.size(), 1);
            QCOMPARE(QDir(folder.path()).entryList(QDir::Files), QStringList());
            return;
        }
        QVERIFY2(saved.count() == 1, qPrintable(failed.value(0).value(0).toString()));
        QVERIFY(readFile(folder.filePath(QStringLiteral("setup.run"))) == body);
        QVERIFY(answerer.messages.isEmpty());
        const QByteArray resumed = m_http.requests.last().toLower();
        QCOMPARE(resumed.contains("\r\nrange: bytes="), true);
        QCOMPARE(resumed.contains("\r\nif-range: \"r1\"\r\n"), true);
    }
    void cancelDuringRetryWait()
    {
        Route route {200, "OK", randomBytes(100 * 1024, 3)};
        route.cuts = 1;
        route.cutAfter = 1000;
        m_http.routes.insert("/cut/cancel.run", route);
        m_autoUpdate->setDownloadRetries(2);
        m_autoUpdate->setDownloadFolder(QDir::tempPath());
        QSignalSpy failed(m_autoUpdate.get(), &AutoUpdate::downloadFailed);
        QSignalSpy finished(m_net.qman(), &QNetworkAccessManager::finished);

        QVERIFY(startDownload(m_http.url("/cut/cancel.run")));
        QPointer<QProgressDialog> progress = visibleProgressDialog();
        QTRY_COMPARE_WITH_TIMEOUT(finished.count(), 1, 10000);
        QVERIFY(progress);
        progress->findChild<QPushButton*>()->click();
        QCOMPARE(failed.count(), 1);
        QTRY_VERIFY(!progress);
        QTest::qWait(1500); // past the first retry's moment: none is sent
        QCOMPARE(finished.count(), 1);
    }
    void malformedCheckSkipsTheRelease_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QString>("value");

        QTest::newRow("hash too short") << "sha256" << QString(63, QLatin1Char('a'));
        QTest::newRow("hash not hex") << "sha256" << QString(63, QLatin1Char('a')) + "g";
        QTest::newRow("size not a number") << "size"
                                           << "12kB";
        QTest::newRow("size negative") << "size"
                                       << "-1";
    }
    void malformedCheckSkipsTheRelease()
    {
        QFETCH(QString, key);
        QFETCH(QString, value);
        veltrax::SettingsFile reply = listReply(m_host.product, releases({"v1_3_0", "v1_4_0"}));
        reply.setSetting(m_host.product.toStdString() + ".v1_3_0." + key.toStdString(), veltrax::Variant(value.toStdString()));
        QVERIFY(deliverListReply(m_autoUpdate.get(), reply));
        QCOMPARE(m_autoUpdate->versions().size(), 1);
        QCOMPARE(m_autoUpdate->versions().first().internalVersion, QStringLiteral("v1_4_0"));
    }
    void releaseWithoutUrlIsNotDownloaded()
    {
        QVERIFY(!startDownload(QString()));
        QVERIFY(!m_autoUpdate->updateToVersion(QStringLiteral("v9_9_9"), &m_host));
        QVERIFY(!visibleProgressDialog());
    }

private:
    /** Starts the download of release v1_3_0 whose installer is at @p url. */
    bool startDownload(const QString& url)
    {
        TestRelease release {QStringLiteral("v1_3_0")};
        release.url = url;
        return deliverListReply(m_autoUpdate.get(), listReply(m_host.product, {release})) && m_autoUpdate->updateToVersion(release.label, nullptr);
    }

    TestHost m_host;
    HttpResponder m_http;
    QTemporaryDir m_keys;
    QByteArray m_installer;
    QTemporaryDir m_dir;
    std::unique_ptr<Journaller> m_journal;
    std::unique_ptr<AutoUpdate> m_autoUpdate;
    veltrax::NetManager m_net; // the shared manager: its finished() tells when a download ended
};

QTEST_MAIN(AutoUpdateDownloadTest)
#include "autoupdatedownloadtest.moc"
