// SPDX-License-Identifier: MIT
// Keys and signatures made at test time by the real minisign tool, checked by our verifier.
#include "downloadfile_p.h"
#include "minisign_p.h"

#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

namespace
{

QByteArray line(const QByteArray& text, int index)
{
    return text.split('\n').value(index);
}

QByteArray withLine(const QByteArray& text, int index, const QByteArray& replacement)
{
    QList<QByteArray> lines = text.split('\n');
    lines[index] = replacement;
    return lines.join('\n');
}

} // namespace

class MinisignTest : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void signatureIsChecked_data();
    void signatureIsChecked();

private:
    QByteArray read(const QString& name) const
    {
        QFile file(m_dir.filePath(name));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    QTemporaryDir m_dir;
};

void MinisignTest::initTestCase()
{
    QVERIFY(m_dir.isValid());
    QByteArray installer;
    for (quint32 i = 0; i < 300000; ++i)
        installer.append(static_cast<char>((i * 7919u) >> 3));
    QFile file(m_dir.filePath(QStringLiteral("installer.run")));
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write(installer) == installer.size());
    file.close();

    const QList<QStringList> runs = {
        {"-G", "-W", "-p", "a.pub", "-s", "a.key"},
        {"-G", "-W", "-p", "b.pub", "-s", "b.key"},
        {"-S", "-s", "a.key", "-m", "installer.run"},
        {"-S", "-l", "-s", "a.key", "-m", "installer.run", "-x", "legacy.minisig"},
        {"-S", "-s", "b.key", "-m", "installer.run", "-x", "otherkey.minisig"},
        {"-S", "-s", "a.key", "-m", "installer.run", "-x", "otherfile.minisig", "-t", "timestamp:1\tfile:other.run\thashed"},
        {"-S", "-s", "a.key", "-m", "installer.run", "-x", "nofile.minisig", "-t", "release 2.0"},
    };
    for (const QStringList& arguments : runs) {
        QProcess minisign;
        minisign.setWorkingDirectory(m_dir.path());
        minisign.start(QStringLiteral("minisign"), arguments);
        QVERIFY2(minisign.waitForFinished(30000) && minisign.exitCode() == 0, minisign.readAllStandardError().constData());
    }
}

void MinisignTest::signatureIsChecked_data()
{
    QTest::addColumn<QByteArray>("signature");
    QTest::addColumn<QByteArrayList>("keys");
    QTest::addColumn<bool>("tamperFile");
    QTest::addColumn<QString>("refusal"); // empty: accepted

    const QByteArray good = read(QStringLiteral("installer.run.minisig"));
    const QByteArray legacy = read(QStringLiteral("legacy.minisig"));
    const QByteArray a = read(QStringLiteral("a.pub"));
    const QByteArray signatureBytes = QByteArray::fromBase64(line(good, 1));
    const QByteArray keyBytes = QByteArray::fromBase64(line(a, 1));
    const QByteArrayList keyA {a};

    QTest::newRow("prehashed") << good << keyA << false << QString();
    QTest::newRow("legacy") << legacy << keyA << false << QString();
    QTest::newRow("CRLF line ends") << QByteArray(good).replace("\n", "\r\n") << keyA << false << QString();
    QTest::newRow("trusted comment without file") << read(QStringLiteral("nofile.minisig")) << keyA << false << QString();
    QTest::newRow("signer is the second key, keys as base64 lines")
        << read(QStringLiteral("otherkey.minisig")) << QByteArrayList {line(a, 1), line(read(QStringLiteral("b.pub")), 1)} << false << QString();

    QTest::newRow("prehashed, tampered byte") << good << keyA << true << "does not match the file";
    QTest::newRow("legacy, tampered byte") << legacy << keyA << true << "does not match the file";
    QTest::newRow("untrusted key") << read(QStringLiteral("otherkey.minisig")) << keyA << false << "not trusted";
    QTest::newRow("tampered trusted comment") << QByteArray(good).replace("timestamp:", "timestamp:1") << keyA << false << "trusted comment's signature";
    QTest::newRow("names another file") << read(QStringLiteral("otherfile.minisig")) << keyA << false << "\"other.run\", not \"installer.run\"";

    QTest::newRow("missing") << QByteArray() << keyA << false << "empty";
    QTest::newRow("garbage") << QByteArray(500, '\xC3') << keyA << false << "untrusted comment";
    QTest::newRow("two lines") << line(good, 0) + '\n' + line(good, 1) + '\n' << keyA << false << "2 lines instead of 4";
    QTest::newRow("no untrusted comment") << good.mid(good.indexOf('\n') + 1) << keyA << false << "untrusted comment";
    QTest::newRow("signature bad base64") << withLine(good, 1, line(good, 1).replace(10, 1, "!")) << keyA << false << "signature is not valid base64";
    QTest::newRow("signature unpadded") << withLine(good, 1, line(good, 1).replace("=", "")) << keyA << false << "signature is not valid base64";
    QTest::newRow("signature short") << withLine(good, 1, line(good, 1).left(96)) << keyA << false << "72 bytes instead of 74";
    QTest::newRow("unknown algorithm") << withLine(good, 1, ("Ex" + signatureBytes.mid(2)).toBase64()) << keyA << false << "algorithm is unknown";
    QTest::newRow("trusted comment prefix missing") << withLine(good, 2, line(good, 2).mid(8)) << keyA << false << "not a trusted comment";
    QTest::newRow("global signature short") << withLine(good, 3, QByteArray(63, 'x').toBase64()) << keyA << false << "63 bytes instead of 64";
    QTest::newRow("fifth line") << good + "more\n" << keyA << false << "more than 4 lines";

    QTest::newRow("key empty") << good << QByteArrayList {""} << false << "not one base64 line";
    QTest::newRow("key bad base64") << good << QByteArrayList {line(a, 1).replace(5, 1, "*")} << false << "key is not valid base64";
    QTest::newRow("key short") << good << QByteArrayList {keyBytes.left(41).toBase64()} << false << "41 bytes instead of 42";
    QTest::newRow("key not Ed") << good << QByteArrayList {("ED" + keyBytes.mid(2)).toBase64()} << false << "not an Ed25519 key";
}

void MinisignTest::signatureIsChecked()
{
    QFETCH(QByteArray, signature);
    QFETCH(QByteArrayList, keys);
    QFETCH(bool, tamperFile);
    QFETCH(QString, refusal);

    QString reason;
    QVector<minisign::PublicKey> trusted(keys.size());
    for (int i = 0; i < keys.size() && reason.isEmpty(); ++i)
        reason = minisign::parsePublicKey(keys.at(i), &trusted[i]);
    minisign::Signature parsed;
    if (reason.isEmpty())
        reason = minisign::parseSignature(signature, &parsed);
    if (reason.isEmpty()) {
        QByteArray bytes = read(QStringLiteral("installer.run"));
        if (tamperFile)
            bytes[123457] = static_cast<char>(bytes.at(123457) ^ 1);
        QFile received(m_dir.filePath(QStringLiteral("received")));
        QVERIFY(received.open(QIODevice::WriteOnly) && received.write(bytes) == bytes.size());
        received.close();

        // Fed in odd chunks after a discarded start, as a resumed download would.
        minisign::Verifier verifier(trusted, parsed);
        DownloadDigest digest(&verifier);
        digest.addData("stale", 5);
        digest.reset();
        for (int at = 0; at < bytes.size(); at += 4093)
            digest.addData(bytes.constData() + at, qMin(4093, bytes.size() - at));
        reason = verifier.verify(QStringLiteral("installer.run"), received.fileName());
        if (reason.isEmpty()) // as minisign printed it into the key's comment
            QVERIFY((read(QStringLiteral("a.pub")) + read(QStringLiteral("b.pub"))).contains("public key " + verifier.keyIdText().toLatin1() + '\n'));
    }
    if (refusal.isEmpty())
        QCOMPARE(reason, QString());
    else
        QVERIFY2(reason.contains(refusal), qPrintable(reason));
}

QTEST_GUILESS_MAIN(MinisignTest)
#include "minisigntest.moc"
