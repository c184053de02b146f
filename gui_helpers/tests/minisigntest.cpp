// SPDX-License-Identifier: MIT
// Signatures made at test time by the real minisign tool, checked by our verifier.
#include "downloadfile_p.h"
#include "minisign_p.h"

#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <functional>

using Edit = std::function<QByteArray(QByteArray)>;
Q_DECLARE_METATYPE(Edit)

namespace
{

QByteArray replaceLine(QByteArray text, int index, const QByteArray& line)
{
    QList<QByteArray> lines = text.split('\n');
    lines[index] = line;
    return lines.join('\n');
}

QByteArray lineOf(const QByteArray& text, int index)
{
    return text.split('\n').value(index);
}

} // namespace

class MinisignTest : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void signatureIsChecked_data();
    void signatureIsChecked();
    void publicKeyIsParsed_data();
    void publicKeyIsParsed();

private:
    QString path(const QString& name) const { return m_dir.filePath(name); }
    QByteArray read(const QString& name) const;
    void minisign(const QStringList& arguments);

    QTemporaryDir m_dir;
};

QByteArray MinisignTest::read(const QString& name) const
{
    QFile file(path(name));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void MinisignTest::minisign(const QStringList& arguments)
{
    QProcess process;
    process.setWorkingDirectory(m_dir.path());
    process.start(QStringLiteral("minisign"), arguments);
    QVERIFY2(process.waitForFinished(30000), "minisign did not finish");
    QVERIFY2(process.exitCode() == 0, process.readAllStandardError().constData());
}

void MinisignTest::initTestCase()
{
    QVERIFY(m_dir.isValid());
    QByteArray installer;
    for (quint32 i = 0; i < 300000; ++i)
        installer.append(static_cast<char>((i * 7919u) >> 3));
    QFile file(path(QStringLiteral("installer.run")));
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write(installer) == installer.size());
    file.close();

    for (const char* key : {"a", "b"})
        minisign({"-G", "-W", "-p", QString::fromLatin1(key) + ".pub", "-s", QString::fromLatin1(key) + ".key"});
    const QString sign = QStringLiteral("-S");
    minisign({sign, "-s", "a.key", "-m", "installer.run"});
    minisign({sign, "-l", "-s", "a.key", "-m", "installer.run", "-x", "legacy.minisig"});
    minisign({sign, "-s", "b.key", "-m", "installer.run", "-x", "otherkey.minisig"});
    minisign({sign, "-s", "a.key", "-m", "installer.run", "-x", "otherfile.minisig", "-t", "timestamp:1\tfile:other.run\thashed"});
    minisign({sign, "-s", "a.key", "-m", "installer.run", "-x", "nofile.minisig", "-t", "release 2.0"});
}

void MinisignTest::signatureIsChecked_data()
{
    QTest::addColumn<QString>("signatureFile");
    QTest::addColumn<Edit>("edit");
    QTest::addColumn<bool>("tamperFile");
    QTest::addColumn<bool>("trustBoth");
    QTest::addColumn<QString>("refusal"); // empty: accepted

    const QString prehashed = QStringLiteral("installer.run.minisig");
    const QString legacy = QStringLiteral("legacy.minisig");
    const Edit same = [](QByteArray text) {
        return text;
    };
    QTest::newRow("prehashed") << prehashed << same << false << false << QString();
    QTest::newRow("legacy") << legacy << same << false << false << QString();
    QTest::newRow("CRLF line ends") << prehashed << Edit([](QByteArray t) {
        return t.replace("\n", "\r\n");
    }) << false << false << QString();
    QTest::newRow("trusted comment without file") << "nofile.minisig" << same << false << false << QString();
    QTest::newRow("signer is the second trusted key") << "otherkey.minisig" << same << false << true << QString();

    QTest::newRow("prehashed, tampered byte") << prehashed << same << true << false << "does not match the file";
    QTest::newRow("legacy, tampered byte") << legacy << same << true << false << "does not match the file";
    QTest::newRow("untrusted key") << "otherkey.minisig" << same << false << false << "not trusted";
    QTest::newRow("tampered trusted comment") << prehashed << Edit([](QByteArray t) {
        return t.replace("timestamp:", "timestamp:1");
    }) << false << false << "trusted comment's signature";
    QTest::newRow("names another file") << "otherfile.minisig" << same << false << false << "\"other.run\", not \"installer.run\"";

    QTest::newRow("missing") << prehashed << Edit([](QByteArray) {
        return QByteArray();
    }) << false << false << "empty";
    QTest::newRow("garbage") << prehashed << Edit([](QByteArray) {
        return QByteArray(500, '\xC3');
    }) << false << false << "untrusted comment";
    QTest::newRow("two lines") << prehashed << Edit([](QByteArray t) {
        return t.left(t.indexOf("trusted comment: ", 20));
    }) << false << false << "2 lines instead of 4";
    QTest::newRow("no untrusted comment") << prehashed << Edit([](QByteArray t) {
        return t.mid(t.indexOf('\n') + 1);
    }) << false << false << "untrusted comment";
    QTest::newRow("signature line bad base64") << prehashed << Edit([](QByteArray t) {
        return replaceLine(t, 1, lineOf(t, 1).replace(10, 1, "!"));
    }) << false << false << "signature is not valid base64";
    QTest::newRow("signature line unpadded") << prehashed << Edit([](QByteArray t) {
        return replaceLine(t, 1, lineOf(t, 1).replace("=", ""));
    }) << false << false << "signature is not valid base64";
    QTest::newRow("signature line short") << prehashed << Edit([](QByteArray t) {
        return replaceLine(t, 1, lineOf(t, 1).left(96));
    }) << false << false << "72 bytes instead of 74";
    QTest::newRow("unknown algorithm") << prehashed << Edit([](QByteArray t) {
        return replaceLine(t, 1, ("Ex" + QByteArray::fromBase64(lineOf(t, 1)).mid(2)).toBase64());
    }) << false << false << "algorithm is unknown";
    QTest::newRow("trusted comment prefix missing") << prehashed << Edit([](QByteArray t) {
        return replaceLine(t, 2, lineOf(t, 2).mid(8));
    }) << false << false << "not a trusted comment";
    QTest::newRow("global signature short") << prehashed << Edit([](QByteArray t) {
        return replaceLine(t, 3, QByteArray(63, 'x').toBase64());
    }) << false << false << "63 bytes instead of 64";
    QTest::newRow("fifth line") << prehashed << Edit([](QByteArray t) {
        return t + "more\n";
    }) << false << false << "more than 4 lines";
}

void MinisignTest::signatureIsChecked()
{
    QFETCH(QString, signatureFile);
    QFETCH(Edit, edit);
    QFETCH(bool, tamperFile);
    QFETCH(bool, trustBoth);
    QFETCH(QString, refusal);

    minisign::Signature signature;
    QString reason = minisign::parseSignature(edit(read(signatureFile)), &signature);
    if (reason.isEmpty()) {
        QVector<minisign::PublicKey> keys(trustBoth ? 2 : 1);
        QCOMPARE(minisign::parsePublicKey(read(QStringLiteral("a.pub")), &keys[0]), QString());
        if (trustBoth)
            QCOMPARE(minisign::parsePublicKey(read(QStringLiteral("b.pub")), &keys[1]), QString());

        QByteArray bytes = read(QStringLiteral("installer.run"));
        if (tamperFile)
            bytes[123457] = static_cast<char>(bytes.at(123457) ^ 1);
        QFile copy(path(QStringLiteral("received")));
        QVERIFY(copy.open(QIODevice::WriteOnly) && copy.write(bytes) == bytes.size());
        copy.close();

        minisign::Verifier verifier(keys, signature);
        DownloadDigest digest(&verifier);
        digest.addData("stale", 5);
        digest.reset();
        for (int at = 0; at < bytes.size(); at += 4093)
            digest.addData(bytes.constData() + at, qMin(4093, bytes.size() - at));
        reason = verifier.verify(QStringLiteral("installer.run"), copy.fileName());
        if (reason.isEmpty()) {
            // The id minisign printed into the public key's comment.
            const QByteArray pub = read(trustBoth ? QStringLiteral("b.pub") : QStringLiteral("a.pub"));
            QCOMPARE(verifier.keyIdText(), QString::fromLatin1(lineOf(pub, 0).split(' ').last()));
        }
    }
    if (refusal.isEmpty())
        QCOMPARE(reason, QString());
    else
        QVERIFY2(reason.contains(refusal), qPrintable(reason));
}

void MinisignTest::publicKeyIsParsed_data()
{
    QTest::addColumn<Edit>("edit");
    QTest::addColumn<QString>("refusal");

    QTest::newRow("whole .pub") << Edit([](QByteArray t) {
        return t;
    }) << QString();
    QTest::newRow("base64 line") << Edit([](QByteArray t) {
        return lineOf(t, 1) + "\r\n";
    }) << QString();
    QTest::newRow("empty") << Edit([](QByteArray) {
        return QByteArray();
    }) << "not one base64 line";
    QTest::newRow("two key lines") << Edit([](QByteArray t) {
        return lineOf(t, 1) + '\n' + lineOf(t, 1);
    }) << "not one base64 line";
    QTest::newRow("bad base64") << Edit([](QByteArray t) {
        return lineOf(t, 1).replace(5, 1, "*");
    }) << "not valid base64";
    QTest::newRow("short") << Edit([](QByteArray t) {
        return QByteArray::fromBase64(lineOf(t, 1)).left(41).toBase64();
    }) << "41 bytes instead of 42";
    QTest::newRow("not Ed") << Edit([](QByteArray t) {
        return ("ED" + QByteArray::fromBase64(lineOf(t, 1)).mid(2)).toBase64();
    }) << "not an Ed25519 key";
}

void MinisignTest::publicKeyIsParsed()
{
    QFETCH(Edit, edit);
    QFETCH(QString, refusal);
    minisign::PublicKey key;
    const QString reason = minisign::parsePublicKey(edit(read(QStringLiteral("a.pub"))), &key);
    if (refusal.isEmpty()) {
        QCOMPARE(reason, QString());
        QCOMPARE(key.keyId.size(), 8);
        QCOMPARE(key.key.size(), 32);
    } else {
        QVERIFY2(reason.contains(refusal), qPrintable(reason));
    }
}

QTEST_GUILESS_MAIN(MinisignTest)
#include "minisigntest.moc"
