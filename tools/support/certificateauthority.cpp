// SPDX-License-Identifier: MIT
#include "certificateauthority.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QSslConfiguration>

namespace
{
QByteArray contents(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}
} // namespace

bool CertificateAuthority::runOpenssl(const QStringList& arguments)
{
    QProcess openssl;
    openssl.setWorkingDirectory(m_dir);
    openssl.setProcessChannelMode(QProcess::MergedChannels);
    openssl.start(QStringLiteral("openssl"), arguments);
    if (!openssl.waitForStarted(10000)) {
        m_error = QStringLiteral("cannot run openssl (%1); install the openssl package").arg(openssl.errorString());
        return false;
    }
    if (openssl.waitForFinished(30000) && openssl.exitStatus() == QProcess::NormalExit && openssl.exitCode() == 0)
        return true;
    m_error = QStringLiteral("openssl %1 failed: %2").arg(arguments.join(QLatin1Char(' ')), QString::fromLocal8Bit(openssl.readAll()).trimmed());
    openssl.kill();
    openssl.waitForFinished(1000);
    return false;
}

bool CertificateAuthority::create(const QString& directory, const QString& caSubject)
{
    m_dir = QDir(directory).absolutePath();
    if (!QDir().mkpath(m_dir)) {
        m_error = QStringLiteral("cannot create %1").arg(m_dir);
        return false;
    }
    QFile extensions(m_dir + QStringLiteral("/server.ext"));
    if (!extensions.open(QIODevice::WriteOnly | QIODevice::Truncate)
        || extensions.write("basicConstraints=CA:FALSE\n"
                            "keyUsage=digitalSignature,keyEncipherment\n"
                            "extendedKeyUsage=serverAuth\n"
                            "subjectAltName=DNS:localhost,IP:127.0.0.1\n")
            < 0) {
        m_error = QStringLiteral("cannot write %1").arg(extensions.fileName());
        return false;
    }
    extensions.close();

    // EC keys: made in milliseconds, where RSA keys take a noticeable moment.
    const QStringList newKey = {
        QStringLiteral("-newkey"), QStringLiteral("ec"), QStringLiteral("-pkeyopt"), QStringLiteral("ec_paramgen_curve:prime256v1"), QStringLiteral("-nodes")};
    const auto args = [](const char* line) {
        return QString::fromLatin1(line).split(QLatin1Char(' '));
    };
    return runOpenssl(args("req -x509") + newKey + args("-days 2 -keyout ca.key -out ca.pem -subj") + QStringList(caSubject))
        && runOpenssl(args("req") + newKey + args("-subj /CN=localhost -keyout server.key -out server.csr"))
        && runOpenssl(args("x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 2 -extfile server.ext -out server.pem"));
}

QSslCertificate CertificateAuthority::caCertificate() const
{
    return QSslCertificate(contents(caCertificatePath()), QSsl::Pem);
}

QSslCertificate CertificateAuthority::serverCertificate() const
{
    return QSslCertificate(contents(serverCertificatePath()), QSsl::Pem);
}

QSslKey CertificateAuthority::serverKey() const
{
    return QSslKey(contents(serverKeyPath()), QSsl::Ec, QSsl::Pem);
}

void trustCertificateAuthorities(const QList<QSslCertificate>& cas)
{
    QSslConfiguration config = QSslConfiguration::defaultConfiguration();
    QList<QSslCertificate> trusted = config.caCertificates();
    for (const QSslCertificate& ca : cas) {
        if (!trusted.contains(ca))
            trusted.append(ca);
    }
    config.setCaCertificates(trusted);
    QSslConfiguration::setDefaultConfiguration(config);
}

bool trustCertificateAuthorities(const QString& path, QString* error)
{
    const QList<QSslCertificate> cas = QSslCertificate::fromPath(path, QSsl::Pem);
    if (cas.isEmpty()) {
        if (error)
            *error = QStringLiteral("no PEM certificate in %1").arg(path);
        return false;
    }
    trustCertificateAuthorities(cas);
    return true;
}
