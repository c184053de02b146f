// SPDX-License-Identifier: MIT
//
// Load for the reference update server, from one thread: many TLS connections in one event
// loop, each sending a script of requests one at a time and checking every reply byte for
// byte (replies that carry a tree: setting for setting). The load test and the benchmark
// drive the server with it.
#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QObject>
#include <QSslSocket>
#include <QStringList>
#include <QVector>

#include <functional>
#include <memory>
#include <vector>

class LoadClient : public QObject
{
    Q_OBJECT
public:
    struct Exchange {
        QByteArray request;
        /** The whole reply expected, header included. */
        QByteArray reply;
    };

    LoadClient(const QString& host, quint16 port, QVector<Exchange> script, QObject* parent = nullptr);
    ~LoadClient() override;

    /** Starts the TLS connection; encrypted() tells when it is up. */
    void connectToServer();
    /** Sends the script, each request after the previous reply; finished() at the end. */
    void runScript();

    bool isEncrypted() const { return m_encrypted; }
    bool isDone() const { return m_done; }
    int answered() const { return m_answered; }
    /** Empty while everything went as scripted. */
    QString failure() const { return m_failure; }

Q_SIGNALS:
    void encrypted();
    void finished();

private:
    void sendNext();
    void readReplies();
    void fail(const QString& why);

    QSslSocket m_socket;
    QString m_host;
    quint16 m_port;
    QVector<Exchange> m_script;
    QByteArray m_in;
    int m_answered = 0;
    bool m_encrypted = false;
    bool m_running = false;
    bool m_done = false;
    QString m_failure;
};

/** What one run of runLoad() achieved. */
struct LoadResult {
    int clients = 0;
    int encrypted = 0;
    int completed = 0;
    qint64 requests = 0;
    /** From the first connect until every connection was encrypted. */
    double handshakeSeconds = 0;
    /** From the start of the scripts until every client finished. */
    double requestSeconds = 0;
    /** The first few failures, one line each. */
    QStringList failures;
    bool ok() const { return failures.isEmpty() && encrypted == clients && completed == clients; }
};

/**
 * Connects @p clients clients at once, waits until all are encrypted, then runs all their
 * scripts at once (@p scriptFor gives client i its script). Runs this thread's event loop
 * and gives up after @p timeoutMs in all.
 */
LoadResult runLoad(const QString& host, quint16 port, int clients, const std::function<QVector<LoadClient::Exchange>(int)>& scriptFor, int timeoutMs);
