// SPDX-License-Identifier: MIT
#include "updateserverprocess.h"

#include <QFileInfo>

UpdateServerProcess::UpdateServerProcess(TestCertificates* sharedCertificates)
    : m_ownCertificates(sharedCertificates ? nullptr : new TestCertificates)
    , m_certificates(sharedCertificates ? sharedCertificates : m_ownCertificates.get())
    , m_haveCertificates(sharedCertificates != nullptr)
{
}

UpdateServerProcess::~UpdateServerProcess()
{
    stop();
}

QString UpdateServerProcess::program()
{
    const QByteArray fromEnvironment = qgetenv("GUI_HELPERS_UPDATE_SERVER");
    if (!fromEnvironment.isEmpty())
        return QString::fromLocal8Bit(fromEnvironment);
#ifdef GUI_HELPERS_UPDATE_SERVER_PROGRAM
    return QStringLiteral(GUI_HELPERS_UPDATE_SERVER_PROGRAM);
#else
    return QString();
#endif
}

void UpdateServerProcess::setCatalogue(const veltrax::SettingsFile& catalogue)
{
    m_catalogueFile = m_dir.filePath(QStringLiteral("catalogue.vxa"));
    catalogue.writeVxa(m_catalogueFile.toStdString(), std::string(), "-");
}

bool UpdateServerProcess::start()
{
    m_error.clear();
    if (program().isEmpty() || !QFileInfo(program()).isExecutable()) {
        m_error = QStringLiteral("the reference update server was not built");
        return false;
    }
    if (!m_haveCertificates) {
        if (!m_certificates->create()) {
            m_error = m_certificates->errorString();
            return false;
        }
        m_haveCertificates = true;
    }
    trustCertificateAuthority(m_certificates->caCertificate());

    QStringList arguments = QStringList() << QStringLiteral("--address") << QStringLiteral("127.0.0.1") << QStringLiteral("--port") << QStringLiteral("0")
                                          << QStringLiteral("--cert") << m_certificates->serverCertificatePath() << QStringLiteral("--key")
                                          << m_certificates->serverKeyPath();
    if (!m_catalogueFile.isEmpty())
        arguments << QStringLiteral("--catalogue") << m_catalogueFile;
    if (m_useInbox)
        arguments << QStringLiteral("--inbox") << inboxPath();
    arguments << m_extraArguments;
    if (!m_process.start(program(), arguments)) {
        m_error = m_process.errorString();
        return false;
    }
    return true;
}

bool UpdateServerProcess::stop()
{
    return !m_process.isRunning() || m_process.stop();
}

UpdateServerOptions UpdateServerProcess::options() const
{
    UpdateServerOptions options;
    // The certificate names 127.0.0.1 too, so verification stays on and honest.
    options.serverAddress = QStringLiteral("127.0.0.1");
    options.port = port();
    return options;
}
