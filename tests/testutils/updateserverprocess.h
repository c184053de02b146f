// SPDX-License-Identifier: MIT
//
// The reference update server (gui_helpers_update_server) as a child process for tests:
// makes throwaway certificates and trusts their CA in this process, writes the catalogue,
// starts the server on a free loopback port, hands out the options to reach it, stops it.
#pragma once

#include "serverprocess.h"
#include "settingsfile.h"
#include "testcertificates.h"
#include "updateservercomm.h"

#include <QStringList>
#include <QTemporaryDir>

#include <memory>

class UpdateServerProcess
{
public:
    /** With @p sharedCertificates (already created, not owned) no new ones are made. */
    explicit UpdateServerProcess(TestCertificates* sharedCertificates = nullptr);
    ~UpdateServerProcess();
    UpdateServerProcess(const UpdateServerProcess&) = delete;
    UpdateServerProcess& operator=(const UpdateServerProcess&) = delete;

    /** Path of the server program (build tree), or empty when it was not built. */
    static QString program();

    /** The tree the server answers from: one subtree per request id. Written as .vxa. */
    void setCatalogue(const veltrax::SettingsFile& catalogue);
    /** A catalogue file of your own (.vxa or .json) instead. */
    void setCatalogueFile(const QString& path) { m_catalogueFile = path; }
    /** More options, e.g. {"--chunk-size", "1"} or {"--never-answer"}. */
    void setExtraArguments(const QStringList& arguments) { m_extraArguments = arguments; }
    /** Leave the inbox out (usage records are then refused). On by default. */
    void setUseInbox(bool use) { m_useInbox = use; }

    /**
     * Makes certificates on first use, trusts their CA in Qt's default SSL configuration,
     * and starts the server on 127.0.0.1 with a port of the system's choice. Bounded wait.
     */
    bool start();
    /** SIGTERM and a bounded wait; true when it stopped cleanly. */
    bool stop();

    quint16 port() const { return m_process.port(); }
    UpdateServerOptions options() const;
    QString inboxPath() const { return m_dir.filePath(QStringLiteral("inbox")); }
    TestCertificates& certificates() { return *m_certificates; }
    ServerProcess& process() { return m_process; }
    QString errorString() const { return m_error; }

private:
    QTemporaryDir m_dir;
    std::unique_ptr<TestCertificates> m_ownCertificates;
    TestCertificates* m_certificates;
    bool m_haveCertificates = false;
    QString m_catalogueFile;
    QStringList m_extraArguments;
    bool m_useInbox = true;
    ServerProcess m_process;
    QString m_error;
};
