// SPDX-License-Identifier: MIT
#include "demoservices.h"

#include "certificateauthority.h"
#include "demooptions.h"
#include "journaller.h"
#include "localhttpserver.h"
#include "referenceupdateserver.h"
#include "settingsfile.h"
#include "watchdog.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QStandardPaths>

#include <sodium.h>

#include <ctime>

namespace
{
const QByteArray DownloadsPlaceholder = QByteArrayLiteral("@DOWNLOADS@");

/** Stand-in installer: a shell script that says what it is, padded to a realistic size. */
QByteArray installerBytes(const QString& name)
{
    QByteArray bytes
        = "#!/bin/sh\n# " + name.toUtf8() + "\necho 'This is a stand-in installer served by the libgui_helpers demo; it installs nothing.'\nexit 0\n";
    QByteArray padding;
    for (int i = 0; padding.size() < 768 * 1024; ++i)
        padding += "# " + QByteArray::number(i).rightJustified(8, '0') + " padding so that the download takes a moment\n";
    return bytes + padding;
}
/**
 * A throwaway Ed25519 key that signs the stand-in installers in minisign's format, as a
 * maker would with "minisign -S": the prehashed form (BLAKE2b-512 of the file) and a trusted
 * comment naming the file.
 */
class DemoSigner
{
public:
    bool create()
    {
        if (sodium_init() < 0)
            return false;
        crypto_sign_keypair(m_public, m_secret);
        randombytes_buf(m_keyId, sizeof m_keyId);
        return true;
    }
    QString publicKeyLine() const { return QString::fromLatin1(("Ed" + bytes(m_keyId, sizeof m_keyId) + bytes(m_public, sizeof m_public)).toBase64()); }
    QString keyIdText() const
    {
        QString text;
        for (int i = sizeof m_keyId - 1; i >= 0; --i)
            text += QStringLiteral("%1").arg(m_keyId[i], 2, 16, QLatin1Char('0')).toUpper();
        return text;
    }
    QByteArray signatureFile(const QByteArray& content, const QString& fileName) const
    {
        unsigned char hash[crypto_generichash_BYTES_MAX];
        crypto_generichash(
            hash, sizeof hash, reinterpret_cast<const unsigned char*>(content.constData()), static_cast<unsigned long long>(content.size()), nullptr, 0);
        unsigned char signature[crypto_sign_BYTES];
        crypto_sign_detached(signature, nullptr, hash, sizeof hash, m_secret);
        const QByteArray trusted = "timestamp:" + QByteArray::number(static_cast<qlonglong>(std::time(nullptr))) + "\tfile:" + fileName.toUtf8() + "\thashed";
        const QByteArray signed_ = bytes(signature, sizeof signature) + trusted;
        unsigned char global[crypto_sign_BYTES];
        crypto_sign_detached(
            global, nullptr, reinterpret_cast<const unsigned char*>(signed_.constData()), static_cast<unsigned long long>(signed_.size()), m_secret);
        return "untrusted comment: signature from the gui_helpers demo's throwaway key\n"
            + ("ED" + bytes(m_keyId, sizeof m_keyId) + bytes(signature, sizeof signature)).toBase64() + "\ntrusted comment: " + trusted + '\n'
            + bytes(global, sizeof global).toBase64() + '\n';
    }
    ~DemoSigner() { sodium_memzero(m_secret, sizeof m_secret); }

private:
    static QByteArray bytes(const unsigned char* data, size_t size) { return QByteArray(reinterpret_cast<const char*>(data), static_cast<int>(size)); }

    unsigned char m_public[crypto_sign_PUBLICKEYBYTES] = {};
    unsigned char m_secret[crypto_sign_SECRETKEYBYTES] = {};
    unsigned char m_keyId[8] = {};
};
} // namespace

DemoServices::DemoServices(const DemoOptions& options, QObject* parent)
    : QObject(parent)
    , m_options(options)
{
}

DemoServices::~DemoServices()
{
    Watchdog::setChildProcess(0);
}

QByteArray DemoServices::catalogueText(const QString& downloadBase)
{
    QFile resource(QStringLiteral(":/demo/democatalogue.vxa"));
    if (!resource.open(QIODevice::ReadOnly))
        return QByteArray();
    return resource.readAll().replace(DownloadsPlaceholder, downloadBase.toUtf8());
}

bool DemoServices::start()
{
    if (!m_workDir.isValid()) {
        m_error = QStringLiteral("cannot create a temporary directory: %1").arg(m_workDir.errorString());
        return false;
    }
    if (m_options.embeddedUpdateServer() || m_options.embeddedTus()) {
        if (!startHttpServer())
            return false;
    }
    if (m_options.embeddedUpdateServer()) {
        if (!startEmbeddedUpdateServer())
            return false;
    } else {
        m_updateServer.serverAddress = m_options.serverHost;
        m_updateServer.port = m_options.serverPort;
    }
    if (!m_options.caFile.isEmpty() && !trustCertificateAuthorities(m_options.caFile, &m_error))
        return false;
    m_tusUrl = m_options.embeddedTus() ? m_http->tusUrl() : m_options.tusUrl;
    return true;
}

bool DemoServices::startHttpServer()
{
    const QString dataDir = QStandardPaths::writableLocation(QStandardPaths::AppDataLocation);
    m_http = std::make_unique<LocalHttpServer>(QDir(dataDir).filePath(QStringLiteral("uploads")));
    if (!m_http->start()) {
        m_error = QStringLiteral("cannot listen on 127.0.0.1: %1").arg(m_http->errorString());
        return false;
    }
    connect(m_http.get(), &LocalHttpServer::requestServed, this, [](int status, const QString& line) {
        // Every chunk of an upload is a request: only refusals are worth a journal line by default.
        JLOG_TO(gJournal, "LocalHttpServer", status >= 400 ? JLL_ALERT : JLL_TRACE, line);
    });
    JDEBUG("local HTTP server at " << m_http->baseUrl());
    return true;
}

bool DemoServices::startEmbeddedUpdateServer()
{
    Watchdog::setStage("looking for gui_helpers_update_server");
    const QString program = ReferenceUpdateServer::findProgram(m_options.updateServerProgram);
    if (program.isEmpty()) {
        m_error = m_options.updateServerProgram.isEmpty()
            ? QStringLiteral("gui_helpers_update_server was not found next to the demo nor in the build tree; build it, or pass --server")
            : QStringLiteral("%1 is not an executable program").arg(m_options.updateServerProgram);
        return false;
    }

    Watchdog::setStage("making the demo certificate authority with openssl");
    m_authority = std::make_unique<CertificateAuthority>();
    if (!m_authority->create(m_workDir.filePath(QStringLiteral("tls")), QStringLiteral("/O=Veltrax demo/CN=gui_helpers demo CA (this run only)"))) {
        m_error = m_authority->errorString();
        return false;
    }

    // The installers are signed at start-up, as a maker signs releases, and the key is trusted.
    DemoSigner signer;
    if (!signer.create()) {
        m_error = QStringLiteral("libsodium could not be initialised");
        return false;
    }

    // The catalogue, with the installers' addresses on the local HTTP server.
    const QString downloads = m_http->baseUrl() + QStringLiteral("/installers");
    const QByteArray catalogue = catalogueText(downloads);
    if (catalogue.isEmpty()) {
        m_error = QStringLiteral("the demo catalogue resource is missing");
        return false;
    }
    veltrax::SettingsFile tree;
    tree.readVxaString(catalogue.toStdString());
    for (const auto& setting : tree.flattened()) {
        const std::string& name = setting.first;
        if (name.size() < 4 || name.compare(name.size() - 4, 4, ".url") != 0 || !setting.second.isString())
            continue;
        const QString url = QString::fromStdString(setting.second.toStdString());
        if (!url.startsWith(downloads + QLatin1Char('/')))
            continue;
        const QString file = url.mid(downloads.size() + 1);
        const QByteArray content = installerBytes(file);
        m_installerUrls.append(m_http->addFile(file, content));
        m_http->addFile(file + QStringLiteral(".minisig"), signer.signatureFile(content, file));
    }
    m_publicKey = signer.publicKeyLine();
    m_keyId = signer.keyIdText();
    const QString cataloguePath = m_workDir.filePath(QStringLiteral("democatalogue.vxa"));
    QFile catalogueFile(cataloguePath);
    if (!catalogueFile.open(QIODevice::WriteOnly) || catalogueFile.write(catalogue) != catalogue.size()) {
        m_error = QStringLiteral("cannot write %1").arg(cataloguePath);
        return false;
    }
    catalogueFile.close();

    Watchdog::setStage("starting gui_helpers_update_server");
    m_inbox = QDir(QStandardPaths::writableLocation(QStandardPaths::AppDataLocation)).filePath(QStringLiteral("server-inbox"));
    m_embeddedServer = std::make_unique<ReferenceUpdateServer>(m_authority.get());
    m_embeddedServer->setProgram(program);
    m_embeddedServer->setCatalogueFile(cataloguePath);
    m_embeddedServer->setInboxPath(m_inbox);
    // The library never reconnects on its own: the demo's connection must outlive idle minutes.
    m_embeddedServer->setExtraArguments({QStringLiteral("--idle-timeout"), QStringLiteral("0")});
    connect(&m_embeddedServer->process(), &ServerProcess::lineRead, this, [](const QString& line) {
        JLOG_TO(gJournal, "gui_helpers_update_server", JLL_DEBUG, line);
    });
    connect(&m_embeddedServer->process(), &ServerProcess::processStarted, this, [](qint64 pid) {
        Watchdog::setChildProcess(pid);
    });
    if (!m_embeddedServer->start()) {
        m_error = m_embeddedServer->errorString();
        m_embeddedServer.reset();
        Watchdog::setChildProcess(0);
        return false;
    }
    m_updateServer = m_embeddedServer->options();
    JDEBUG("embedded update server " << program << " on " << m_updateServer.serverAddress << ':' << m_updateServer.port);
    return true;
}

QString DemoServices::updateServerDescription() const
{
    if (m_embeddedServer)
        return tr("embedded reference server at %1:%2, certificate from this run's demo CA").arg(m_updateServer.serverAddress).arg(m_updateServer.port);
    const QString trust = m_options.caFile.isEmpty() ? tr("system certificate authorities") : tr("CA file %1").arg(m_options.caFile);
    return tr("%1:%2 (%3)").arg(m_updateServer.serverAddress).arg(m_updateServer.port).arg(trust);
}

QString DemoServices::tusDescription() const
{
    return m_options.embeddedTus() ? tr("embedded tus 1.0.0 endpoint %1").arg(m_tusUrl) : m_tusUrl;
}
