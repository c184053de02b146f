// SPDX-License-Identifier: MIT
// The download's file name, size and hash checks, and its move into the folder, on real files.
// Signature checks fed through DownloadDigest: minisigntest.cpp.
#include "downloadfile_p.h"

#include <QDir>
#include <QFile>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

class DownloadFileTest : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void fileNameIsSafe_data();
    void fileNameIsSafe();
    void digestChecksSizeAndHash_data();
    void digestChecksSizeAndHash();
    void fileLandsWholeOrNotAtAll_data();
    void fileLandsWholeOrNotAtAll();
};

void DownloadFileTest::initTestCase()
{
    QStandardPaths::setTestModeEnabled(true);
    QCoreApplication::setOrganizationName(QStringLiteral("gui_helpers_tests"));
    QCoreApplication::setApplicationName(QStringLiteral("downloadfiletest"));
}

void DownloadFileTest::fileNameIsSafe_data()
{
    QTest::addColumn<QString>("url");
    QTest::addColumn<QString>("name");

    // clang-format off
    QTest::newRow("plain") << "https://h/dl/installer-2.0.run?x=1#y" << "installer-2.0.run";
    QTest::newRow("encoded slashes") << "https://h/dl/..%2F..%2F.bashrc" << ".bashrc";
    QTest::newRow("encoded backslashes") << "https://h/dl/..%5C..%5Cevil.exe" << "evil.exe";
    QTest::newRow("dot dot") << "https://h/dl/.." << "download";
    QTest::newRow("trailing slash") << "https://h/dl/" << "download";
    QTest::newRow("only a space") << "https://h/%20" << "download";
    QTest::newRow("reserved characters") << "https://h/a%3Fb%3Ac%2A.run" << "a_b_c_.run";
    QTest::newRow("control characters") << "https://h/a%00b%0D.run" << "a_b_.run";
    QTest::newRow("device name") << "https://h/CON.exe" << "___.exe";
    QTest::newRow("trailing dots") << "https://h/setup.exe.%20." << "setup.exe";
    QTest::newRow("several faults") << "https://h/nul%3F." << "nul_";
    QTest::newRow("long, extension kept") << "https://h/" + QString(300, QLatin1Char('a')) + ".run" << QString(76, QLatin1Char('a')) + ".run";
    const QString face = QString::fromUtf8("\xF0\x9F\x98\x80"); // two UTF-16 units
    QTest::newRow("long, no surrogate split") << "https://h/a" + face.repeated(40) << "a" + face.repeated(39);
    // clang-format on
}

void DownloadFileTest::fileNameIsSafe()
{
    QFETCH(QString, url);
    QFETCH(QString, name);
    QCOMPARE(safeDownloadFileName(QUrl(url)), name);
    const QFileInfo path(downloadFilePath(QStringLiteral("/srv/downloads"), QUrl(url)));
    QCOMPARE(path.absolutePath(), QStringLiteral("/srv/downloads"));
    QCOMPARE(path.fileName(), name);
}

void DownloadFileTest::digestChecksSizeAndHash_data()
{
    QTest::addColumn<qint64>("size");
    QTest::addColumn<QByteArray>("sha256");
    QTest::addColumn<QString>("refusal");

    const QByteArray abc = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
    QTest::newRow("nothing expected") << qint64(-1) << QByteArray() << QString();
    QTest::newRow("both match") << qint64(3) << abc << QString();
    QTest::newRow("upper-case hash") << qint64(-1) << abc.toUpper() << QString();
    QTest::newRow("size differs") << qint64(4) << abc << "3 bytes instead of 4";
    QTest::newRow("hash differs") << qint64(3) << QByteArray(abc).replace('b', 'c') << "SHA-256";
}

void DownloadFileTest::digestChecksSizeAndHash()
{
    QFETCH(qint64, size);
    QFETCH(QByteArray, sha256);
    QFETCH(QString, refusal);
    DownloadDigest digest;
    digest.addData("xyz", 3);
    digest.reset();
    digest.addData("a", 1);
    digest.addData("bc", 2);
    const QString reason = digest.check(size, sha256);
    if (refusal.isEmpty())
        QCOMPARE(reason, QString());
    else
        QVERIFY2(reason.contains(refusal), qPrintable(reason));
}

void DownloadFileTest::fileLandsWholeOrNotAtAll_data()
{
    QTest::addColumn<QString>("folderBase"); // empty: inside the cache, so on its file system
    QTest::addColumn<bool>("folderExists");
    QTest::addColumn<bool>("replacesFile");

    QTest::newRow("rename") << QString() << true << false;
    QTest::newRow("replaces an older file") << QString() << true << true;
    if (QFileInfo(QStringLiteral("/dev/shm")).isWritable())
        QTest::newRow("copy across file systems") << QStringLiteral("/dev/shm") << true << true;
    QTest::newRow("folder missing") << QString() << false << false;
}

void DownloadFileTest::fileLandsWholeOrNotAtAll()
{
    QFETCH(QString, folderBase);
    QFETCH(bool, folderExists);
    QFETCH(bool, replacesFile);

    const QString cache = QStandardPaths::writableLocation(QStandardPaths::CacheLocation);
    QVERIFY(QDir().mkpath(cache));
    QTemporaryDir dir((folderBase.isEmpty() ? cache : folderBase) + QStringLiteral("/dl-XXXXXX"));
    QVERIFY(dir.isValid());
    const QString folder = folderExists ? dir.path() : dir.filePath(QStringLiteral("missing"));
    const QString target = folder + QStringLiteral("/installer.run");
    if (replacesFile) {
        QFile old(target);
        QVERIFY(old.open(QIODevice::WriteOnly) && old.write("old contents, longer than the new ones") > 0);
    }

    DownloadDigest digest;
    QString temporary;
    {
        DownloadFile file(&digest);
        QVERIFY(file.open());
        temporary = file.temporaryPath();
        QVERIFY(temporary.startsWith(cache + QLatin1Char('/')));
        QVERIFY(file.write(QByteArray("a first attempt")));
        QVERIFY(file.restart());
        const QByteArray chunk(100000, 'x');
        for (int i = 0; i < 5; ++i)
            QVERIFY(file.write(chunk));
        QVERIFY(file.write(QByteArray("end")));
        QCOMPARE(digest.size(), qint64(500003));

        const bool committed = file.commit(target);
        QCOMPARE(committed, folderExists);
        QCOMPARE(file.errorString(), folderExists ? QString() : QStringLiteral("Failed to create file ") + target);
    }
    QVERIFY(!QFile::exists(temporary));

    QFile result(target);
    if (!folderExists) {
        QVERIFY(!result.exists());
        return;
    }
    QVERIFY(result.open(QIODevice::ReadOnly));
    const QByteArray contents = result.readAll();
    QCOMPARE(contents.size(), 500003);
    QCOMPARE(QCryptographicHash::hash(contents, QCryptographicHash::Sha256).toHex(), digest.sha256Hex());
    QCOMPARE(QDir(folder).entryList(QDir::Files | QDir::Hidden), QStringList {QStringLiteral("installer.run")});
}

QTEST_GUILESS_MAIN(DownloadFileTest)
#include "downloadfiletest.moc"
