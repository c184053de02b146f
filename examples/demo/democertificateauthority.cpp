// SPDX-License-Identifier: MIT
#include "democertificateauthority.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QSslConfiguration>

bool DemoCertificateAuthority::runOpenssl(const QStringList& arguments)
{
    QProcess openssl;
    openssl.setWorkingDirectory(m_dir);
    openssl.setProcessChannelMode(QProcess::MergedChannels);
    openssl.start(QStringLiteral("openssl"), arguments);
    if (!openssl.waitForStarted(10000)) {
        m_error = QStringLiteral("cannot run openssl (%1); install the openssl package").arg(openssl.errorString());
        return false;
    }
    if (!openssl.waitForFinished(20000) || openssl.exitStatus() != QProcess::NormalExit || openssl.exitCode() != 0) {
        m_error = QStringLiteral("openssl %1 failed: %2").arg(arguments.constFirst(), QString::fromLocal8Bit(openssl.readAll()).trimmed());
        openssl.kill();
        openssl.waitForFinished(1000);
        return false;
    }
    return true;
}

bool DemoCertificateAuthority::create(const QString& directory)
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

    const QStringList ecKey = {QStringLiteral("-newkey"), QStringLiteral("ec"), QStringLiteral("-pkeyopt"), QStringLiteral("ec_paramgen_curve:prime256v1")};
    return runOpenssl(QStringList {QStringLiteral("req"), QStringLiteral("-x509")} + ecKey
               + QStringList {QStringLiteral("-nodes"),
                   QStringLiteral("-days"),
                   QStringLiteral("2"),
                   QStringLiteral("-subj"),
                   QStringLiteral("/O=Veltrax demo/CN=gui_helpers demo CA (this run only)"),
                   QStringLiteral("-keyout"),
                   QStringLiteral("demo-ca.key"),
                   QStringLiteral("-out"),
                   QStringLiteral("demo-ca.pem")})
        && runOpenssl(QStringList {QStringLiteral("req")} + ecKey
            + QStringList {QStringLiteral("-nodes"),
                QStringLiteral("-subj"),
                QStringLiteral("/O=Veltrax demo/CN=localhost"),
                QStringLiteral("-keyout"),
                QStringLiteral("server.key"),
                QStringLiteral("-out"),
                QStringLiteral("server.csr")})
        && runOpenssl({QStringLiteral("x509"),
            QStringLiteral("-req"),
            QStringLiteral("-in"),
            QStringLiteral("server.csr"),
            QStringLiteral("-CA"),
            QStringLiteral("demo-ca.pem"),
            QStringLiteral("-CAkey"),
            QStringLiteral("demo-ca.key"),
            QStringLiteral("-CAcreateserial"),
            QStringLiteral("-days"),
            QStringLiteral("2"),
            QStringLiteral("-extfile"),
            QStringLiteral("server.ext"),
            QStringLiteral("-out"),
            QStringLiteral("server.pem")});
}

bool DemoCertificateAuthority::trustInThisProcess(const QString& path, QString* error)
{
    const QList<QSslCertificate> certificates = QSslCertificate::fromPath(path, QSsl::Pem);
    if (certificates.isEmpty()) {
        if (error)
            *error = QStringLiteral("no PEM certificate in %1").arg(path);
        return false;
    }
    QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
    configuration.setCaCertificates(configuration.caCertificates() + certificates);
    QSslConfiguration::setDefaultConfiguration(configuration);
    return true;
}
