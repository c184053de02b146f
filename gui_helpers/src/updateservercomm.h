// SPDX-License-Identifier: MIT
//
// The one TLS connection to the update server, the requests made over it, and the request
// threads that run them.
#pragma once

#include "gui_helpers_export.h"
#include "mutex.h"
#include "settingsfile.h"
#include "updateserverprotocol.h"

#include <QAbstractSocket>
#include <QByteArray>
#include <QEvent>
#include <QList>
#include <QMetaType>
#include <QObject>
#include <QSslError>
#include <QSslSocket>
#include <QString>
#include <QThread>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>

class Journaller;

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
 * Carries bytes to the thread that owns the connection, so the socket is only ever
 * written there. Events are handled in posting order, so requests reach the wire in the
 * order they were queued.
 */
class GUI_HELPERS_EXPORT SendEvent : public QEvent
{
public:
    static constexpr QEvent::Type EventType = static_cast<QEvent::Type>(1000);

    SendEvent(QSslSocket* socket, const QByteArray& data)
        : QEvent(EventType)
        , m_socket(socket)
        , m_data(data)
    {
    }
    QSslSocket* socket() const { return m_socket; }
    const QByteArray& data() const { return m_data; }

private:
    QSslSocket* m_socket;
    QByteArray m_data;
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
    bool isTerminated() const { return m_terminated.load(); }

    /** Outstanding ServerRequest count, waited for by the destructor. */
    void incRequests();
    void decRequests();
    int requestCount() const { return m_requests.load(); }

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

    /** The record prepAndSendUsageDataAndHandleReply() sends: "USAGE <length> " and the tree's bytes. */
    static QByteArray buildUsageRecord(const veltrax::SettingsFile& tree);

    bool event(QEvent* event) override;

public Q_SLOTS:
    void handleIncomingData();
    void handleSocketStateChanged(QAbstractSocket::SocketState socketState);
    void handleSocketModeChanged(QSslSocket::SslMode socketMode);
    void handleServerSocketSslErrors(const QList<QSslError>& errors);

protected:
    /**
     * The receive path behind handleIncomingData(): appends @p bytes to the receive buffer
     * and takes every complete reply off its front. Protected so that tests and benchmarks
     * can feed it bytes without a socket.
     */
    void receiveBytes(const QByteArray& bytes);

Q_SIGNALS:
    /** Relays the reply parser's progress (emitted on the owning thread). */
    void currentDownloadProgressChanged(size_t progress, size_t total);

private:
    veltrax::SettingsFile blockingRequest(
        const char* function, const char* word, const QString& id, const QString& mask, const QString* version, const std::function<void()>& send);
    /**
     * Waits for the connection; empty when it is usable, else the error tree's message.
     * Refused at once on the owning thread, where the wait could never end.
     */
    QString connectionProblem(const char* function);
    /** Clears the reply fields and sets the waiting flag; the caller holds the lock. */
    void prepareForReply();
    /** Polls the waiting flag; false when terminated. */
    bool waitForReply();
    void postToSocket(const QByteArray& data);
    QString replyCommand() const;

    QSslSocket* m_socket = nullptr;
    QByteArray m_receiveBuffer;
    /** Start of the unparsed bytes in m_receiveBuffer (compacted now and then). */
    int m_readOffset = 0;
    /** Buffer size at which the body now arriving is complete; 0 when not known. */
    qint64 m_awaitedSize = 0;
    veltrax::Mutex m_mutex;
    /** Guards the reply fields, the socket pointer and the handshake errors across threads. */
    mutable std::mutex m_stateMutex;
    std::unique_ptr<veltrax::SettingsFile> m_replyTree;
    QString m_replyCommand;
    QString m_replyMessage;
    std::atomic<bool> m_waiting {false};
    std::atomic<bool> m_terminated {false};
    QString m_serverAddress;
    int m_serverPort = 0;
    std::atomic<int> m_lastState {QAbstractSocket::UnconnectedState};
    std::atomic<bool> m_encrypted {false};
    QList<QSslError> m_handshakeErrors;
    UpdateServerOptions m_options;
    std::atomic<int> m_requests {0};

    Q_DISABLE_COPY(UpdateServerComm)
};

/**
 * One blocking request on a thread of its own. The caller creates it, connects to reply()
 * and calls start(); the reply arrives queued on the receiver's thread and the object then
 * deletes itself. While it lives it holds one unit of the connection's request count.
 */
class GUI_HELPERS_EXPORT ServerRequest : public QThread
{
    Q_OBJECT
public:
    ServerRequest(UpdateServerComm& comm, QObject* parent = nullptr);
    ~ServerRequest() override;

    /** The result of doRequest() (valid once reply() was emitted). */
    const veltrax::SettingsFile& result() const { return *m_result; }

Q_SIGNALS:
    /** The reply, error or empty tree; emitted on the request's thread. Not emitted if doRequest() threw. */
    void reply(const veltrax::SettingsFile& settings);

protected:
    void run() override;
    /** Fills result(); runs on the request's thread. */
    virtual void doRequest() = 0;

    std::unique_ptr<veltrax::SettingsFile> m_result;
    UpdateServerComm& m_comm;

    Q_DISABLE_COPY(ServerRequest)
};

/** The look-ups: an id, a mask and, for the GET forms, a version, kept for doRequest(). */
class GUI_HELPERS_EXPORT ServerLookupRequest : public ServerRequest
{
    Q_OBJECT
protected:
    ServerLookupRequest(UpdateServerComm& comm, const QString& id, const QString& mask, const QString& version, QObject* parent);

    const QString m_id;
    const QString m_mask;
    const QString m_version;
};

/** LIST id mask. */
class GUI_HELPERS_EXPORT ServerListRequest : public ServerLookupRequest
{
    Q_OBJECT
public:
    ServerListRequest(UpdateServerComm& comm, const QString& id, const QString& mask, QObject* parent = nullptr);

protected:
    void doRequest() override;
};

/** LIS2T id mask. */
class GUI_HELPERS_EXPORT ServerList2Request : public ServerLookupRequest
{
    Q_OBJECT
public:
    ServerList2Request(UpdateServerComm& comm, const QString& id, const QString& mask, QObject* parent = nullptr);

protected:
    void doRequest() override;
};

/** GET id mask version (see UpdateServerComm::get()). */
class GUI_HELPERS_EXPORT ServerGetRequest : public ServerLookupRequest
{
    Q_OBJECT
public:
    ServerGetRequest(UpdateServerComm& comm, const QString& id, const QString& mask, const QString& version, QObject* parent = nullptr);

protected:
    void doRequest() override;
};

/** GE2T id mask version. */
class GUI_HELPERS_EXPORT ServerGet2Request : public ServerLookupRequest
{
    Q_OBJECT
public:
    ServerGet2Request(UpdateServerComm& comm, const QString& id, const QString& mask, const QString& version, QObject* parent = nullptr);

protected:
    void doRequest() override;
};

/** PRODUCTKEY id mask (see UpdateServerComm::getProductKey()). */
class GUI_HELPERS_EXPORT ServerGetProductKeyRequest : public ServerLookupRequest
{
    Q_OBJECT
public:
    ServerGetProductKeyRequest(UpdateServerComm& comm, const QString& id, const QString& mask, QObject* parent = nullptr);

protected:
    void doRequest() override;
};

/** CUSTOMERINFO id mask (see UpdateServerComm::getCustomerInfo()). */
class GUI_HELPERS_EXPORT ServerGetCustomerDetailsRequest : public ServerLookupRequest
{
    Q_OBJECT
public:
    ServerGetCustomerDetailsRequest(UpdateServerComm& comm, const QString& id, const QString& mask, QObject* parent = nullptr);

protected:
    void doRequest() override;
};

/** Sends the closed usage logs beside @p logFilePath whose names contain @p pattern. */
class GUI_HELPERS_EXPORT SendUsageDataToServer : public ServerRequest
{
    Q_OBJECT
public:
    SendUsageDataToServer(UpdateServerComm& comm, const QString& logFilePath, const QString& pattern, QObject* parent = nullptr);

protected:
    void doRequest() override;

private:
    QString m_logFilePath;
    QString m_pattern;
};
