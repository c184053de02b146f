// SPDX-License-Identifier: MIT
//
// Every kind of bad server certificate is refused: one real TLS server on 127.0.0.1 per
// row, with certificates made by openssl when the test starts. A refused connection must
// end as an explained error tree, be closed, never have a reply parsed, and leave an
// alert in the journal. The good certificate must still get through.
// (The error texts of a hand-made error list are checked in updateservercommtest.)
#include "journaller.h"
#include "serverrequests.h"
#include "settingsfile.h"
#include "testcertificates.h"
#include "testhelpers.h"
#include "updateservercomm.h"

#include <QFile>
#include <QHostAddress>
#include <QPointer>
#include <QProcess>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QSslKey>
#include <QSslSocket>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

Q_DECLARE_METATYPE(QList<QSslError::SslError>)

namespace
{

constexpr int kWait = 15000;

QByteArray listReply()
{
    VxByteArray bytes;
    textTree({{"a", "b"}}).serialize(bytes);
    return "LIST " + QByteArray::number(qulonglong(bytes.size())) + ' ' + QByteArray(bytes.data(), int(bytes.size()));
}

/**
 * Sends a LIST reply as soon as a connection is encrypted (unasked) and once more for every
 * line received, so a client that let a refused connection through would have a reply to
 * parse. Keeps every accepted socket, handshake done or not.
 */
class EagerTlsServer : public QTcpServer
{
public:
    EagerTlsServer(const QSslCertificate& certificate, const QSslKey& key)
        : m_certificate(certificate)
        , m_key(key)
    {
    }
    QList<QPointer<QSslSocket>> sockets;
    QByteArray received;

protected:
    void incomingConnection(qintptr descriptor) override
    {
        auto* socket = new QSslSocket(this);
        if (!socket->setSocketDescriptor(descriptor)) {
            delete socket;
            return;
        }
        sockets.append(socket);
        socket->setLocalCertificate(m_certificate);
        socket->setPrivateKey(m_key);
        connect(socket, &QSslSocket::encrypted, socket, [socket] {
            socket->write(listReply());
        });
        connect(socket, &QSslSocket::readyRead, socket, [this, socket] {
            const QByteArray bytes = socket->readAll();
            received += bytes;
            for (int i = bytes.count('\n'); i > 0; --i)
                socket->write(listReply());
        });
        socket->startServerEncryption();
    }

private:
    QSslCertificate m_certificate;
    QSslKey m_key;
};

} // namespace

class TlsRefusalTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void certificate_data();
    void certificate();

private:
    bool openssl(const QString& command);
    QString path(const QString& name) const { return m_dir.filePath(name); }

    QTemporaryDir m_dir;
    std::unique_ptr<Journaller> m_journal;
};

bool TlsRefusalTest::openssl(const QString& command)
{
    QProcess process;
    process.setWorkingDirectory(m_dir.path());
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QStringLiteral("openssl"), QProcess::splitCommand(command));
    const bool ok = process.waitForFinished(30000) && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    if (!ok)
        qWarning("openssl %s: %s", qPrintable(command), process.readAll().constData());
    return ok;
}

void TlsRefusalTest::initTestCase()
{
    QVERIFY(m_dir.isValid());
    // One CA signs every leaf through `openssl ca`, the only way OpenSSL 3.0 takes explicit
    // validity dates. Sections name the extensions of each kind of leaf.
    const QByteArray san = "subjectAltName=DNS:localhost,IP:127.0.0.1\n";
    const QByteArray leaf = "basicConstraints=CA:FALSE\nkeyUsage=digitalSignature,keyEncipherment\n";
    QVERIFY(writeFile(path(QStringLiteral("ca.cnf")),
        "[ca]\ndefault_ca=own\n"
        "[own]\ndatabase=index.txt\nnew_certs_dir=.\nserial=serial\ndefault_md=sha256\npolicy=any\nunique_subject=no\ndefault_days=2\n"
        "[any]\ncommonName=supplied\n"
        "[server]\n"
            + leaf + "extendedKeyUsage=serverAuth\n" + san + "[otherhost]\n" + leaf
            + "extendedKeyUsage=serverAuth\nsubjectAltName=DNS:other.example.invalid\n"
              "[clientonly]\n"
            + leaf + "extendedKeyUsage=clientAuth\n" + san));
    QVERIFY(writeFile(path(QStringLiteral("index.txt")), QByteArray()));
    QVERIFY(writeFile(path(QStringLiteral("serial")), "1000\n"));
    QVERIFY(writeFile(path(QStringLiteral("self.cnf")), "[req]\ndistinguished_name=dn\n[dn]\n[server]\n" + leaf + "extendedKeyUsage=serverAuth\n" + san));

    const QString ca
        = QStringLiteral("ca -batch -config ca.cnf -cert %1.pem -keyfile %1.key -notext -subj /CN=localhost -in %2.csr -out %3.pem -extensions %4 %5");
    const QStringList commands = {
        QStringLiteral("req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=Trusted -keyout ca.key -out ca.pem"),
        QStringLiteral("req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=Stranger -keyout stranger.key -out stranger.pem"),
        QStringLiteral("req -newkey rsa:2048 -nodes -subj /CN=localhost -keyout leaf.key -out leaf.csr"),
        QStringLiteral("req -newkey rsa:1024 -nodes -subj /CN=localhost -keyout weak.key -out weak.csr"),
        ca.arg("ca", "leaf", "good", "server", QString()),
        ca.arg("ca", "leaf", "expired", "server", "-startdate 20200101000000Z -enddate 20200201000000Z"),
        ca.arg("ca", "leaf", "future", "server", "-startdate 20400101000000Z -enddate 20400201000000Z"),
        ca.arg("ca", "leaf", "otherhost", "otherhost", QString()),
        ca.arg("ca", "leaf", "clientonly", "clientonly", QString()),
        ca.arg("stranger", "leaf", "strangers", "server", QString()),
        ca.arg("ca", "weak", "weak", "server", QString()),
        QStringLiteral("req -x509 -config self.cnf -extensions server -key leaf.key -days 2 -subj /CN=localhost -out self.pem"),
    };
    for (const QString& command : commands)
        QVERIFY(openssl(command));
    trustCertificateAuthority(QSslCertificate(readFile(path(QStringLiteral("ca.pem")))));

    m_journal = std::make_unique<Journaller>(VxString(path(QStringLiteral("journal.log")).toStdString()), true, JLL_ALERT);
    UpdateServerComm::setJournaller(m_journal.get());
}

void TlsRefusalTest::cleanupTestCase()
{
    UpdateServerComm::setJournaller(nullptr);
}

void TlsRefusalTest::certificate_data()
{
    QTest::addColumn<QString>("name"); // <name>.pem, with the key leaf.key, or weak.key for "weak"
    QTest::addColumn<QList<QSslError::SslError>>("errors"); // none: the connection is accepted

    using E = QList<QSslError::SslError>;
    QTest::newRow("good") << "good" << E {};
    QTest::newRow("expired") << "expired" << E {QSslError::CertificateExpired};
    QTest::newRow("not yet valid") << "future" << E {QSslError::CertificateNotYetValid};
    QTest::newRow("issued for another host") << "otherhost" << E {QSslError::HostNameMismatch};
    QTest::newRow("self-signed") << "self" << E {QSslError::SelfSignedCertificate};
    QTest::newRow("untrusted CA") << "strangers" << E {QSslError::UnableToGetLocalIssuerCertificate, QSslError::UnableToVerifyFirstCertificate};
    QTest::newRow("no server-auth usage") << "clientonly" << E {QSslError::InvalidPurpose};
    QTest::newRow("RSA key too weak") << "weak" << E {QSslError::UnspecifiedError};
}

void TlsRefusalTest::certificate()
{
    QFETCH(QString, name);
    QFETCH(QList<QSslError::SslError>, errors);

    // Qt will not even load a key below the system's security level, so openssl's own test
    // server, told to allow it, offers that one; it sends the reply from its standard input.
    const bool weak = name == QLatin1String("weak");
    const QString key = weak ? name : QStringLiteral("leaf");
    QProcess opensslServer;
    EagerTlsServer server(QSslCertificate(readFile(path(name + QStringLiteral(".pem")))), QSslKey(readFile(path(key + QStringLiteral(".key"))), QSsl::Rsa));
    quint16 port = 0;
    if (weak) {
        opensslServer.setWorkingDirectory(m_dir.path());
        opensslServer.start(QStringLiteral("openssl"),
            QStringList {
                "s_server", "-accept", "127.0.0.1:0", "-naccept", "1", "-cipher", "DEFAULT:@SECLEVEL=0", "-cert", name + ".pem", "-key", key + ".key"});
        opensslServer.write(listReply());
        QVERIFY(opensslServer.waitForStarted(kWait));
        QRegularExpressionMatch accept;
        QTRY_VERIFY_WITH_TIMEOUT(
            (accept = QRegularExpression(QStringLiteral("ACCEPT 127.0.0.1:(\\d+)")).match(QString::fromLatin1(opensslServer.peek(4096)))).hasMatch(), kWait);
        port = accept.captured(1).toUShort();
    } else {
        QVERIFY(server.listen(QHostAddress::LocalHost, 0));
        port = server.serverPort();
    }

    UpdateServerComm comm(nullptr, UpdateServerOptions {QStringLiteral("127.0.0.1"), port});
    QSignalSpy parsed(&comm, &UpdateServerComm::currentDownloadProgressChanged);
    const veltrax::SettingsFile tree = runRequest<ServerListRequest>(comm, QStringLiteral("p"), QString());
    if (errors.isEmpty()) {
        QCOMPARE(treeDifference(tree, textTree({{"a", "b"}})), QString());
        QVERIFY(!parsed.isEmpty());
        return;
    }

    QString message = QStringLiteral("Certificate verification failed (SSL error)\n");
    QStringList alerts;
    for (QSslError::SslError error : errors) {
        const QString text = QSslError(error).errorString();
        message += text + QLatin1Char('\n');
        alerts << QStringLiteral("[ALERT] handleServerSocketSslErrors Error during communication with 127.0.0.1:%1: %2").arg(port).arg(text);
    }
    const veltrax::SettingsFile expected
        = textTree({{"error.message", message.toStdString()}, {"error.command", "LIST"}, {"error.id", "p"}, {"error.mask", ""}});
    QCOMPARE(treeDifference(tree, expected), QString());
    QCOMPARE(parsed.count(), 0);
    if (weak) {
        // It serves one connection: ending shows the client closed it.
        QTRY_COMPARE_WITH_TIMEOUT(opensslServer.state(), QProcess::NotRunning, kWait);
        QVERIFY(!opensslServer.readAll().contains("LIST")); // it prints what it receives
    } else {
        QCOMPARE(server.received, QByteArray()); // the request was never sent
        QVERIFY(!server.sockets.isEmpty());
        QTRY_VERIFY_WITH_TIMEOUT(std::all_of(server.sockets.cbegin(),
                                     server.sockets.cend(),
                                     [](const QPointer<QSslSocket>& s) {
                                         return !s || s->state() == QAbstractSocket::UnconnectedState;
                                     }),
            kWait);
    }
    m_journal->flush();
    const QByteArray journal = readFile(path(QStringLiteral("journal.log")));
    for (const QString& alert : alerts)
        QVERIFY2(journal.contains(alert.toUtf8()), qPrintable(alert));
}

QTEST_GUILESS_MAIN(TlsRefusalTest)
#include "tlsrefusaltest.moc"
