// SPDX-License-Identifier: MIT
//
// The one TLS connection to the update server and the requests made over it.
#pragma once

#include "gui_helpers_export.h"
// The request threads that run the blocking calls; host code reaches them through this header.
#include "serverrequest.h"
#include "settingsfile.h"
#include "updateserverprotocol.h"

#include <QAbstractSocket>
#include <QByteArray>
#include <QList>
#include <QMetaType>
#include <QObject>
#include <QSslError>
#include <QSslSocket>
#include <QString>

#include <memory>
#include <utility>

class Journaller;
class UpdateServerCommPrivate;

// Trees travel in queued signals (ServerRequest::reply) and in QVariants.
Q_DECLARE_METATYPE(veltrax::SettingsFile)

/** Where the update server is. The caller fills both fields; there are no defaults here. */
struct GUI_HELPERS_EXPORT UpdateServerOptions {
    /** Host name or address. */
    QString serverAddress;
    /** TCP port (used as an unsigned 16-bit number). */
    int port = 0;
};

/**
 * The connection to the update server.
 *
 * It lives on the thread whose event loop runs it (normally the GUI thread), which owns the
 * socket, reads and parses replies and writes requests. Blocking requests (list(), get2(),
 * …) run on other threads, normally inside a ServerRequest: each waits for the connection,
 * takes the recursive lock for its whole exchange, posts its request line and polls until
 * the owning thread has parsed a reply. So requests are served one at a time. There are no
 * time-outs; terminate() ends every wait. A blocking request must never run on the owning
 * thread, whose event loop has to stay free: there it returns at once with an error tree
 * ("Blocking request on the connection's own thread").
 *
 * Failures come back as trees with the section "error" (see updateserverprotocol.h), never
 * as exceptions. Construction starts the connection at once; nothing retries on its own.
 * Received bytes that cannot start any reply (24 or more with no known word in front) are
 * discarded, and a reply declaring a body over 1 GiB aborts the connection.
 * TLS uses the toolkit's default verification; only the cipher list is set (to all
 * supported ciphers).
 *
 * The destructor waits until every ServerRequest made on this connection has finished.
 */
class GUI_HELPERS_EXPORT UpdateServerComm : public QObject
{
    Q_OBJECT
public:
    UpdateServerComm(QObject* parent, const UpdateServerOptions& options);
    ~UpdateServerComm() override;

    /** Journal used by this subsystem. Until set, lines go to gJournal; setting null silences it. */
    static void setJournaller(Journaller* journaller);
    static Journaller* journaller();

    /**
     * Starts a new connection unless one is encrypted or on its way (lookup, connecting,
     * connected). A dropped socket that still says it is encrypted does not count, so this
     * reconnects after a drop. Call on the owning thread.
     */
    void tryToConnectToServer();
    /**
     * Polls (no time limit) until the connection is encrypted (true) or has failed (false,
     * with the TLS errors of the handshake, empty for a plain connection failure or after
     * terminate()). Call from a request thread.
     */
    std::pair<bool, QList<QSslError>> waitForConnection();

    /** "address:port" of the server in use. */
    QString serverString() const;
    /** Each error's text and a line feed, in order. */
    QString generateSslErrorMessage(const QList<QSslError>& errors) const;
    /** Makes every current and future wait give up ("Terminated"). Thread-safe. */
    void terminate();

    /** Outstanding ServerRequest count, waited for by the destructor. */
    void incRequests();
    void decRequests();
    int requestCount() const;

    // Send only: post the request line and return at once.
    void queueList(const QString& id, const QString& mask);
    void queueList2(const QString& id, const QString& mask);
    void queueGet(const QString& id, const QString& mask, const QString& version);
    void queueGet2(const QString& id, const QString& mask, const QString& version);
    /** Licence look-ups, see getProductKey(). */
    void queueGetProductKey(const QString& id, const QString& mask);
    void queueGetCustomerInfo(const QString& id, const QString& mask);
    /** Posts @p data unchanged; logs and sends nothing when there is no socket. */
    void queueSendingOfUsageData(const QByteArray& data);

    // Blocking: the reply tree, an error tree or an empty tree.
    /** LIST; accepts a LIST reply. */
    veltrax::SettingsFile list(const QString& id, const QString& mask);
    /** LIS2T; accepts a LIS2T reply. */
    veltrax::SettingsFile list2(const QString& id, const QString& mask);
    /**
     * GET; accepts only "GET", which is not a reply word, so this yields an error tree (from
     * an ERROR reply or a failure) or an empty tree. Kept for compatibility; use get2().
     */
    veltrax::SettingsFile get(const QString& id, const QString& mask, const QString& version);
    /** GE2T; accepts a GE2T reply. */
    veltrax::SettingsFile get2(const QString& id, const QString& mask, const QString& version);
    /**
     * Licence look-ups. Their request lines are this library's choice, made to match the
     * lookups above: the reply word the server answers with ("PRODUCTKEY", "CUSTOMERINFO"),
     * the device id and the mask, each followed by a space, then a line feed. The reply of
     * the same word is returned as it came; anything else behaves as for list().
     */
    veltrax::SettingsFile getProductKey(const QString& id, const QString& mask);
    veltrax::SettingsFile getCustomerInfo(const QString& id, const QString& mask);
    /**
     * Sends the logs in the directory of @p path whose full names contain @p pattern, except
     * @p path's own file (still being written), as one USAGE record: a tree holding one
     * binary setting per file, keyed by the file's base name. Returns the (empty) tree of
     * the acknowledgement, or an error tree.
     */
    veltrax::SettingsFile prepAndSendUsageDataAndHandleReply(const QString& path, const QString& pattern);

    bool event(QEvent* event) override;

public Q_SLOTS:
    void handleIncomingData();
    void handleSocketStateChanged(QAbstractSocket::SocketState socketState);
    void handleSocketModeChanged(QSslSocket::SslMode socketMode);
    void handleServerSocketSslErrors(const QList<QSslError>& errors);

Q_SIGNALS:
    /** Relays the reply parser's progress (emitted on the owning thread). */
    void currentDownloadProgressChanged(size_t progress, size_t total);

private:
    friend class UpdateServerCommPrivate;
    std::unique_ptr<UpdateServerCommPrivate> const d;

    Q_DISABLE_COPY(UpdateServerComm)
};
