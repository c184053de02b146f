// SPDX-License-Identifier: MIT
#include "referenceupdateserver.h"

#include <QCoreApplication>
#include <QFileInfo>

ReferenceUpdateServer::ReferenceUpdateServer(CertificateAuthority* sharedCertificates)
    : m_ownCertificates(sharedCertificates ? nullptr : new CertificateAuthority)
    , m_certificates(sharedCertificates ? sharedCertificates : m_ownCertificates.get())
    , m_haveCertificates(sharedCertificates != nullptr)
    , m_inbox(m_dir.filePath(QStringLiteral("inbox")))
{
}

ReferenceUpdateServer::~ReferenceUpdateServer()
{
    stop();
}

QString ReferenceUpdateServer::findProgram(const QString& explicitPath)
{
    if (!explicitPath.isEmpty())
        return QFileInfo(explicitPath).isExecutable() ? QFileInfo(explicitPath).absoluteFilePath() : QString();
    const QString besideUs = QCoreApplication::applicationDirPath() + QStringLiteral("/gui_helpers_update_server");
    if (QFileInfo(besideUs).isExecutable())
        return besideUs;
#ifdef GUI_HELPERS_BUILT_UPDATE_SERVER
    if (QFileInfo(QStringLiteral(GUI_HELPERS_BUILT_UPDATE_SERVER)).isExecutable())
        return QStringLiteral(GUI_HELPERS_BUILT_UPDATE_SERVER);
#endif
    return QString();
}

void ReferenceUpdateServer::setCatalogue(const veltrax::SettingsFile& catalogue)
{
    m_catalogueFile = m_dir.filePath(QStringLiteral("catalogue.vxa"));
    catalogue.writeVxa(m_catalogueFile.toStdString(), std::string(), "-");
}

bool ReferenceUpdateServer::start()
{
    m_error.clear();
    const QString server = m_program.isEmpty() ? program() : m_program;
    if (!QFileInfo(server).isExecutable()) {
        m_error = QStringLiteral("the reference update server was not built");
        return false;
    }
    if (!m_haveCertificates) {
        if (!m_dir.isValid() || !m_certificates->create(m_dir.filePath(QStringLiteral("tls")))) {
            m_error = m_certificates->errorString();
            return false;
        }
        m_haveCertificates = true;
    }
    trustCertificateAuthorities({m_certificates->caCertificate()});
    QStringList arguments {QStringLiteral("--address"),
        QStringLiteral("127.0.0.1"),
        QStringLiteral("--port"),
        QStringLiteral("0"),
        QStringLiteral("--cert"),
        m_certificates->serverCertificatePath(),
        QStringLiteral("--key"),
        m_certificates->serverKeyPath()};
    if (!m_catalogueFile.isEmpty())
        arguments << QStringLiteral("--catalogue") << m_catalogueFile;
    if (m_useInbox)
        arguments << QStringLiteral("--inbox") << m_inbox;
    if (!m_process.start(server, arguments + m_extraArguments)) {
        m_error = m_process.errorString();
        return false;
    }
    return true;
}

bool ReferenceUpdateServer::stop()
{
    return !m_process.isRunning() || m_process.stop();
}

UpdateServerOptions ReferenceUpdateServer::options() const
{
    UpdateServerOptions options;
    // The certificate names 127.0.0.1 too, so verification stays on and honest.
    options.serverAddress = QStringLiteral("127.0.0.1");
    options.port = port();
    return options;
}
