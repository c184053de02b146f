// SPDX-License-Identifier: MIT
//
// The servers the demo talks to: by default its own, on 127.0.0.1, so that everything
// works offline; or real ones named on the command line.
#pragma once

#include "updateservercomm.h"

#include <QObject>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <memory>

class CertificateAuthority;
class LocalHttpServer;
class ReferenceUpdateServer;
struct DemoOptions;

/**
 * Sets up the update server and the tus endpoint the demo uses.
 *
 * Embedded (no --server): makes a certificate authority and a server certificate for this
 * run in a temporary directory, trusts that CA in this process only, starts a local HTTP
 * server for the installers and tus uploads, writes the demo catalogue with the installers'
 * addresses filled in, and starts gui_helpers_update_server on 127.0.0.1 with it. Received
 * usage logs and uploads are kept in the application's data directory ("server-inbox",
 * "uploads"), so one can look at what arrived.
 *
 * External (--server, --tus-url): trusts the CA file given with --ca-file, if any, and
 * hands out the addresses given.
 */
class DemoServices : public QObject
{
    Q_OBJECT
public:
    explicit DemoServices(const DemoOptions& options, QObject* parent = nullptr);
    ~DemoServices() override;

    /** Starts what is needed; false with the reason in errorString(). */
    bool start();
    QString errorString() const { return m_error; }

    /** Where the update server is. */
    UpdateServerOptions updateServerOptions() const { return m_updateServer; }
    /** The tus creation URL. */
    QString tusUrl() const { return m_tusUrl; }
    /** One line for the user: which update server, and how it is trusted. */
    QString updateServerDescription() const;
    /** One line for the user: which tus endpoint. */
    QString tusDescription() const;

    bool isEmbedded() const { return m_embeddedServer != nullptr; }
    /** Where the embedded update server stores received usage logs (empty when external). */
    QString inboxDirectory() const { return m_inbox; }
    /** The installer addresses of the catalogue the embedded server offers. */
    QStringList installerUrls() const { return m_installerUrls; }
    /** The minisign public key (base64 line) of this run's throwaway signing key; empty when external. */
    QString demoPublicKey() const { return m_publicKey; }
    /** Its key id as minisign prints it. */
    QString demoKeyId() const { return m_keyId; }
    /** The embedded HTTP server (null when both servers are external). */
    LocalHttpServer* httpServer() const { return m_http.get(); }

    /** The demo catalogue with @p downloadBase in place of its placeholder. */
    static QByteArray catalogueText(const QString& downloadBase);

private:
    bool startEmbeddedUpdateServer();
    bool startHttpServer();

    const DemoOptions& m_options;
    QTemporaryDir m_workDir;
    std::unique_ptr<LocalHttpServer> m_http;
    std::unique_ptr<CertificateAuthority> m_authority;
    std::unique_ptr<ReferenceUpdateServer> m_embeddedServer;
    UpdateServerOptions m_updateServer;
    QString m_tusUrl;
    QString m_inbox;
    QStringList m_installerUrls;
    QString m_publicKey;
    QString m_keyId;
    QString m_error;
};
