// SPDX-License-Identifier: MIT
//
// A server program run as a child process: start it, wait (bounded) until it says where it
// listens, hand out that address, keep its output lines, stop it with SIGTERM.
#pragma once

#include <QObject>
#include <QProcess>
#include <QString>
#include <QStringList>

/**
 * One server program as a child of this process. Every wait runs the calling thread's event
 * loop, so clients living on that thread go on talking while it waits.
 */
class ServerProcess : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY(ServerProcess)
public:
    explicit ServerProcess(QObject* parent = nullptr);
    /** Stops a program that still runs. */
    ~ServerProcess() override;

    /**
     * Starts @p program with @p arguments and waits up to @p timeoutMs for an output line
     * holding @p readyMarker followed by "host:port". False, with the reason in
     * errorString(), when it does not start, exits or stays silent (it is stopped then).
     */
    bool start(const QString& program, const QStringList& arguments, const QString& readyMarker = QStringLiteral("listening on "), int timeoutMs = 15000);
    /** SIGTERM, then a bounded wait; SIGKILL if it does not end. Whether it exited cleanly (code 0). */
    bool stop(int timeoutMs = 10000);
    bool isRunning() const { return m_process.state() != QProcess::NotRunning; }

    QString host() const { return m_host; }
    quint16 port() const { return m_port; }
    qint64 processId() const { return m_process.processId(); }
    QString errorString() const { return m_error; }

    /** The lines the program wrote to its standard output so far (the newest 10000), after running events for @p waitMs. */
    QStringList outputLines(int waitMs = 0);
    /** Waits up to @p timeoutMs until some output line contains @p text. */
    bool waitForOutputLine(const QString& text, int timeoutMs = 10000);

Q_SIGNALS:
    /** The program runs; it may not listen yet. */
    void processStarted(qint64 pid);
    /** One line of its standard output, without the line end. */
    void lineRead(const QString& line);

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
