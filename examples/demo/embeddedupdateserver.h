// SPDX-License-Identifier: MIT
//
// Runs the reference update server (gui_helpers_update_server) as a child process.
#pragma once

#include <QObject>
#include <QProcess>
#include <QString>
#include <QStringList>

/**
 * The reference update server as a child of the demo: started on 127.0.0.1 with a free
 * port, stopped with SIGTERM when the demo ends. Its log lines (one per request) are kept.
 */
class EmbeddedUpdateServer : public QObject
{
    Q_OBJECT
public:
    explicit EmbeddedUpdateServer(QObject* parent = nullptr);
    /** Stops the server. */
    ~EmbeddedUpdateServer() override;

    /**
     * The program to run: @p explicitPath when given, else gui_helpers_update_server next to
     * this program (installed layout), else the one built with the demo. Empty when none
     * exists.
     */
    static QString findProgram(const QString& explicitPath);

    /**
     * Starts @p program and waits (at most @p timeoutMs) until it reports the port it
     * listens on. False with the reason in errorString().
     */
    bool start(const QString& program, const QString& certificate, const QString& key, const QString& catalogue, const QString& inbox, int timeoutMs = 15000);
    /** SIGTERM and a bounded wait; SIGKILL when it does not end. */
    void stop();

    QString host() const { return QStringLiteral("127.0.0.1"); }
    quint16 port() const { return m_port; }
    QString errorString() const { return m_error; }
    /** The server's output lines so far. */
    QStringList logLines() const { return m_lines; }
    qint64 processId() const { return m_process.processId(); }

Q_SIGNALS:
    void logLine(const QString& line);
    /** The process runs (it may not listen yet). */
    void processStarted(qint64 pid);

private:
    void collect();

    QProcess m_process;
    QByteArray m_partial;
    QStringList m_lines;
    quint16 m_port = 0;
    QString m_error;
};
