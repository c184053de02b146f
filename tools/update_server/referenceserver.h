// SPDX-License-Identifier: MIT
//
// The reference update server: answers the update-server protocol over TLS from a
// catalogue tree and keeps received usage logs in an inbox directory. It can also
// misbehave on purpose (cut, split, delay, refuse or swallow replies) for fault tests.
#pragma once

#include "requestreader.h"
#include "settingsfile.h"

#include <QByteArray>
#include <QDir>
#include <QList>
#include <QPointer>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QSslKey>
#include <QSslSocket>
#include <QTcpServer>
#include <QTimer>

/** How the server answers; the misbehaviour switches are off by default. */
struct ServerBehaviour {
    /** Directory for received usage logs; empty: usage records get an ERROR reply. */
    QString inbox;
    /** Write at most this many bytes of each reply, then close the connection (-1: off). */
    qint64 closeAfter = -1;
    /** Write replies in pieces of this many bytes (0: one write). */
    int chunkSize = 0;
    /** Pause between pieces, in milliseconds. */
    int chunkIntervalMs = 5;
    /** Wait before each reply, in milliseconds. */
    int delayMs = 0;
    /** Answer every request with ERROR and this text (empty: off). */
    QString answerError;
    /** Read requests but never answer. */
    bool neverAnswer = false;
    /** Largest usage record body accepted. */
    qint64 maxRecordSize = 64 * 1024 * 1024;
    /** A connection that sends nothing for this long, handshake included, is closed (0: never). */
    int idleTimeoutMs = 60000;
};

class ServerConnection;

class ReferenceServer : public QTcpServer
{
    Q_OBJECT
public:
    ReferenceServer(const QList<QSslCertificate>& chain,
        const QSslKey& key,
        const veltrax::SettingsFile& catalogue,
        const ServerBehaviour& behaviour,
        QObject* parent = nullptr);
    ~ReferenceServer() override;

    const veltrax::SettingsFile& catalogue() const { return m_catalogue; }
    const ServerBehaviour& behaviour() const { return m_behaviour; }

    /** One line on standard output, flushed at once. */
    static void logLine(const QString& line);

protected:
    void incomingConnection(qintptr descriptor) override;

private:
    friend class ServerConnection;
    void connectionClosed();

    QList<QSslCertificate> m_chain;
    QSslKey m_key;
    QSslConfiguration m_configuration;
    int m_connections = 0;
    veltrax::SettingsFile m_catalogue;
    ServerBehaviour m_behaviour;
};

/** One client: request framing, answers, and the paced writer. */
class ServerConnection : public QObject
{
    Q_OBJECT
public:
    ServerConnection(QSslSocket* socket, ReferenceServer* server);
    ~ServerConnection() override;

private:
    void readRequests();
    /** Handles one request line (without its line feed). */
    void handleLine(const QByteArray& line);
    void handleUsageRecord(const QByteArray& body);
    QByteArray answerFor(const QList<QByteArray>& words, QString& summary) const;
    void enqueue(const QByteArray& reply);
    void pump();
    QString peer() const;

    static QByteArray frame(const QByteArray& word, const QByteArray& body);
    static QByteArray errorReply(const QString& text);

    QSslSocket* m_socket;
    ReferenceServer* m_server;
    RequestReader m_reader;
    QList<QByteArray> m_queue;
    QByteArray m_current;
    qint64 m_currentOffset = 0;
    QTimer m_timer;
    QTimer m_idle;
    bool m_closing = false;
};
