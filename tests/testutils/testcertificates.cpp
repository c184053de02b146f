// SPDX-License-Identifier: MIT
#include "testcertificates.h"

#include <QFile>
#include <QProcess>
#include <QSslConfiguration>
#include <QSslKey>

TestCertificates::TestCertificates() = default;

bool TestCertificates::runOpenssl(const QStringList& arguments)
{
    QProcess openssl;
    openssl.setWorkingDirectory(m_dir.path());
    openssl.setProcessChannelMode(QProcess::MergedChannels);
    openssl.start(QStringLiteral("openssl"), arguments);
    if (!openssl.waitForStarted(10000)) {
        m_error = QStringLiteral("openssl could not be started: %1").arg(openssl.errorString());
        return false;
    }
    if (!openssl.waitForFinished(30000) || openssl.exitStatus() != QProcess::NormalExit || openssl.exitCode() != 0) {
        m_error = QStringLiteral("openssl %1 failed: %2").arg(arguments.join(QLatin1Char(' ')), QString::fromLocal8Bit(openssl.readAll()));
        openssl.kill();
        openssl.waitForFinished(1000);
        return false;
    }
    return true;
}

bool TestCertificates::create()
{
    if (!m_dir.isValid()) {
        m_error = QStringLiteral("no temporary directory");
        return false;
    }
    QFile ext(m_dir.filePath(QStringLiteral("server.ext")));
    if (!ext.open(QIODevice::WriteOnly)) {
        m_error = ext.errorString();
        return false;
    }
    ext.write("basicConstraints=CA:FALSE\n"
              "keyUsage=digitalSignature,keyEncipherment\n"
              "extendedKeyUsage=serverAuth\n"
              "subjectAltName=DNS:localhost,IP:127.0.0.1\n");
    ext.close();

    return runOpenssl({QStringLiteral("req"),
               QStringLiteral("-x509"),
               QStringLiteral("-newkey"),
               QStringLiteral("rsa:2048"),
               QStringLiteral("-nodes"),
               QStringLiteral("-days"),
               QStringLiteral("2"),
               QStringLiteral("-subj"),
               QStringLiteral("/CN=Test CA"),
               QStringLiteral("-keyout"),
               QStringLiteral("ca.key"),
               QStringLiteral("-out"),
               QStringLiteral("ca.pem")})
        && runOpenssl({QStringLiteral("req"),
            QStringLiteral("-newkey"),
            QStringLiteral("rsa:2048"),
            QStringLiteral("-nodes"),
            QStringLiteral("-subj"),
            QStringLiteral("/CN=localhost"),
            QStringLiteral("-keyout"),
            QStringLiteral("server.key"),
            QStringLiteral("-out"),
            QStringLiteral("server.csr")})
        && runOpenssl({QStringLiteral("x509"),
            QStringLiteral("-req"),
            QStringLiteral("-in"),
            QStringLiteral("server.csr"),
            QStringLiteral("-CA"),
            QStringLiteral("ca.pem"),
            QStringLiteral("-CAkey"),
            QStringLiteral("ca.key"),
            QStringLiteral("-CAcreateserial"),
            QStringLiteral("-days"),
            QStringLiteral("2"),
            QStringLiteral("-extfile"),
            QStringLiteral("server.ext"),
            QStringLiteral("-out"),
            QStringLiteral("server.pem")});
}

static QByteArray readAllOf(const QString& path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

QSslCertificate TestCertificates::caCertificate() const
{
    return QSslCertificate(readAllOf(caCertificatePath()), QSsl::Pem);
}

QSslCertificate TestCertificates::serverCertificate() const
{
    return QSslCertificate(readAllOf(serverCertificatePath()), QSsl::Pem);
}

QSslKey TestCertificates::serverKey() const
{
    return QSslKey(readAllOf(serverKeyPath()), QSsl::Rsa, QSsl::Pem);
}

void trustCertificateAuthority(const QSslCertificate& ca)
{
    QSslConfiguration config = QSslConfiguration::defaultConfiguration();
    QList<QSslCertificate> cas = config.caCertificates();
    if (cas.contains(ca))
        return;
    cas.append(ca);
    config.setCaCertificates(cas);
    QSslConfiguration::setDefaultConfiguration(config);
}
