// SPDX-License-Identifier: MIT
//
// Runs a server program as a child process for integration tests, in the manner of
// kuserfeedback's ServerController: start it, wait (bounded) until it reports that it
// listens, hand out its address, stop it with SIGTERM.
#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>

class ServerProcess
{
public:
    ServerProcess();
    ~ServerProcess();
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;

    /**
     * Starts @p program with @p arguments and waits up to @p timeoutMs for a line of its
     * standard output that contains @p readyMarker followed by "host:port". False, with
     * the reason in errorString(), when it does not start, exits or stays silent.
     */
    bool start(const QString& program, const QStringList& arguments, const QString& readyMarker = QStringLiteral("listening on "), int timeoutMs = 15000);
    /** SIGTERM, then a bounded wait; SIGKILL if it does not end. Returns whether it exited cleanly (code 0). */
    bool stop(int timeoutMs = 10000);
    bool isRunning() const { return m_process.state() != QProcess::NotRunning; }

    QString host() const { return m_host; }
    quint16 port() const { return m_port; }
    QString errorString() const { return m_error; }

    // The waits below run the calling thread's event loop, so clients on this thread go on.
    /** Every line the program wrote to its standard output so far (runs events for @p waitMs first). */
    QStringList outputLines(int waitMs = 0);
    /** Waits up to @p timeoutMs until some output line contains @p text. */
    bool waitForOutputLine(const QString& text, int timeoutMs = 10000);

private:
    void collect();

    QProcess m_process;
    QByteArray m_partial;
    QStringList m_lines;
    QString m_host;
    quint16 m_port = 0;
    QString m_error;
    QByteArray m_stderr;
};
