// SPDX-License-Identifier: MIT
#include "testcertificates.h"
#include "testhelpers.h"

#include <QProcess>
#include <QSslConfiguration>
#include <QSslKey>

TestCertificates::TestCertificates() = default;

bool TestCertificates::runOpenssl(const QString& command)
{
    const QStringList arguments = QProcess::splitCommand(command);
    QProcess openssl;
    openssl.setWorkingDirectory(m_dir.path());
    openssl.setProcessChannelMode(QProcess::MergedChannels);
    openssl.start(QStringLiteral("openssl"), arguments);
    // waitForFinished() is false too when openssl did not start.
    if (openssl.waitForFinished(30000) && openssl.exitStatus() == QProcess::NormalExit && openssl.exitCode() == 0)
        return true;
    m_error
        = QStringLiteral("openssl %1 failed: %2 %3").arg(arguments.join(QLatin1Char(' ')), openssl.errorString(), QString::fromLocal8Bit(openssl.readAll()));
    openssl.kill();
    openssl.waitForFinished(1000);
    return false;
}

bool TestCertificates::create()
{
    if (!m_dir.isValid()) {
        m_error = QStringLiteral("no temporary directory");
        return false;
    }
    if (!writeFile(m_dir.filePath(QStringLiteral("server.ext")),
            "basicConstraints=CA:FALSE\n"
            "keyUsage=digitalSignature,keyEncipherment\n"
            "extendedKeyUsage=serverAuth\n"
            "subjectAltName=DNS:localhost,IP:127.0.0.1\n")) {
        m_error = QStringLiteral("cannot write server.ext");
        return false;
    }

    return runOpenssl(QStringLiteral("req -x509 -newkey rsa:2048 -nodes -days 2 -subj \"/CN=Test CA\" -keyout ca.key -out ca.pem"))
        && runOpenssl(QStringLiteral("req -newkey rsa:2048 -nodes -subj /CN=localhost -keyout server.key -out server.csr"))
        && runOpenssl(QStringLiteral("x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 2 -extfile server.ext -out server.pem"));
}

QSslCertificate TestCertificates::caCertificate() const
{
    return QSslCertificate(readFile(caCertificatePath()), QSsl::Pem);
}

QSslCertificate TestCertificates::serverCertificate() const
{
    return QSslCertificate(readFile(serverCertificatePath()), QSsl::Pem);
}

QSslKey TestCertificates::serverKey() const
{
    return QSslKey(readFile(serverKeyPath()), QSsl::Rsa, QSsl::Pem);
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
