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
        connect(m_net.qman(), &QNetworkAccessManager::finished, this, [&error](QNetworkReply* reply) {
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
    QTemporaryDir m_dir;
    std::unique_ptr<Journaller> m_journal;
    std::unique_ptr<AutoUpdate> m_autoUpdate;
    veltrax::NetManager m_net; // the shared manager: its finished() tells when a download ended
};

QTEST_MAIN(AutoUpdateDownloadTest)
#include "autoupdatedownloadtest.moc"
