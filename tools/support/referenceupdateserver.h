// SPDX-License-Identifier: MIT
//
// The reference update server (gui_helpers_update_server) as a child process: with TLS
// certificates made for the run and trusted by this process only, a catalogue and an
// inbox, on 127.0.0.1 with a port of the system's choice.
#pragma once

#include "certificateauthority.h"
#include "serverprocess.h"
#include "settingsfile.h"
#include "updateservercomm.h"

#include <QStringList>
#include <QTemporaryDir>

#include <memory>

class ReferenceUpdateServer
{
public:
    /** With @p sharedCertificates (already created, not owned) no new ones are made. */
    explicit ReferenceUpdateServer(CertificateAuthority* sharedCertificates = nullptr);
    ~ReferenceUpdateServer();
    ReferenceUpdateServer(const ReferenceUpdateServer&) = delete;
    ReferenceUpdateServer& operator=(const ReferenceUpdateServer&) = delete;

    /**
     * The server program: @p explicitPath when given, else gui_helpers_update_server next to
     * this program (installed layout), else the one built in this tree. Empty when none is
     * executable.
     */
    static QString findProgram(const QString& explicitPath = QString());
    static QString program() { return findProgram(); }
    /** Runs @p path instead of program(). */
    void setProgram(const QString& path) { m_program = path; }

    /** The tree the server answers from: one subtree per request id. Written as .vxa. */
    void setCatalogue(const veltrax::SettingsFile& catalogue);
    /** A catalogue file of your own (.vxa or .json) instead. */
    void setCatalogueFile(const QString& path) { m_catalogueFile = path; }
    /** More options, e.g. {"--chunk-size", "1"} or {"--never-answer"}. */
    void setExtraArguments(const QStringList& arguments) { m_extraArguments = arguments; }
    /** Leave the inbox out (usage records are then refused). On by default. */
    void setUseInbox(bool use) { m_useInbox = use; }
    /** Where received usage logs go; by default a directory that goes with this object. */
    void setInboxPath(const QString& path) { m_inbox = path; }

    /**
     * Makes certificates on first use, trusts their CA in Qt's default SSL configuration,
     * and starts the server. Bounded wait; false with errorString() otherwise.
     */
    bool start();
    /** SIGTERM and a bounded wait; true when it stopped cleanly. */
    bool stop();

    quint16 port() const { return m_process.port(); }
    UpdateServerOptions options() const;
    QString inboxPath() const { return m_inbox; }
    CertificateAuthority& certificates() { return *m_certificates; }
    /** The running program, its output lines and signals. */
    ServerProcess& process() { return m_process; }
    QString errorString() const { return m_error; }

private:
    QTemporaryDir m_dir;
    std::unique_ptr<CertificateAuthority> m_ownCertificates;
    CertificateAuthority* m_certificates;
    bool m_haveCertificates = false;
    QString m_program;
    QString m_catalogueFile;
    QString m_inbox;
    QStringList m_extraArguments;
    bool m_useInbox = true;
    ServerProcess m_process;
    QString m_error;
};
