// SPDX-License-Identifier: MIT
#include "embeddedupdateserver.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QFileInfo>
#include <QRegularExpression>

EmbeddedUpdateServer::EmbeddedUpdateServer(QObject* parent)
    : QObject(parent)
{
    m_process.setProcessChannelMode(QProcess::SeparateChannels);
    connect(&m_process, &QProcess::readyReadStandardOutput, this, &EmbeddedUpdateServer::collect);
}

EmbeddedUpdateServer::~EmbeddedUpdateServer()
{
    stop();
}

QString EmbeddedUpdateServer::findProgram(const QString& explicitPath)
{
    if (!explicitPath.isEmpty())
        return QFileInfo(explicitPath).isExecutable() ? QFileInfo(explicitPath).absoluteFilePath() : QString();
    const QString besideUs = QCoreApplication::applicationDirPath() + QStringLiteral("/gui_helpers_update_server");
    if (QFileInfo(besideUs).isExecutable())
        return besideUs;
#ifdef GUI_HELPERS_DEMO_BUILT_UPDATE_SERVER
    if (QFileInfo(QStringLiteral(GUI_HELPERS_DEMO_BUILT_UPDATE_SERVER)).isExecutable())
        return QStringLiteral(GUI_HELPERS_DEMO_BUILT_UPDATE_SERVER);
#endif
    return QString();
}

bool EmbeddedUpdateServer::start(
    const QString& program, const QString& certificate, const QString& key, const QString& catalogue, const QString& inbox, int timeoutMs)
{
    m_process.start(program,
        {QStringLiteral("--address"),
            QStringLiteral("127.0.0.1"),
            QStringLiteral("--port"),
            QStringLiteral("0"),
            QStringLiteral("--cert"),
            certificate,
            QStringLiteral("--key"),
            key,
            QStringLiteral("--catalogue"),
            catalogue,
            QStringLiteral("--inbox"),
            inbox,
            // The library never reconnects on its own: the demo's connection must outlive idle minutes.
            QStringLiteral("--idle-timeout"),
            QStringLiteral("0")});
    if (!m_process.waitForStarted(timeoutMs)) {
        m_error = QStringLiteral("cannot start %1: %2").arg(program, m_process.errorString());
        return false;
    }
    Q_EMIT processStarted(m_process.processId());
    static const QRegularExpression ready(QStringLiteral("listening on [0-9.]+:([0-9]+)"));
    const QDeadlineTimer deadline(timeoutMs);
    while (!deadline.hasExpired()) {
        for (const QString& line : qAsConst(m_lines)) {
            const QRegularExpressionMatch match = ready.match(line);
            if (match.hasMatch()) {
                m_port = static_cast<quint16>(match.captured(1).toUInt());
                return true;
            }
        }
        if (m_process.state() == QProcess::NotRunning) {
            m_error = QStringLiteral("%1 ended at start: %2")
                          .arg(QFileInfo(program).fileName(), QString::fromLocal8Bit(m_process.readAllStandardError()).trimmed());
            return false;
        }
        m_process.waitForReadyRead(static_cast<int>(qBound<qint64>(1, deadline.remainingTime(), 100)));
        collect();
    }
    m_error = QStringLiteral("%1 did not report its port within %2 ms").arg(QFileInfo(program).fileName()).arg(timeoutMs);
    stop();
    return false;
}

void EmbeddedUpdateServer::stop()
{
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_process.terminate();
    if (!m_process.waitForFinished(5000)) {
        m_process.kill();
        m_process.waitForFinished(2000);
    }
    collect();
}

void EmbeddedUpdateServer::collect()
{
    m_partial += m_process.readAllStandardOutput();
    int newline;
    while ((newline = m_partial.indexOf('\n')) >= 0) {
        const QString line = QString::fromUtf8(m_partial.left(newline)).trimmed();
        m_partial.remove(0, newline + 1);
        // Bounded: a chatty server must not fill the demo's memory.
        if (m_lines.size() >= 1000)
            m_lines.removeFirst();
        m_lines.append(line);
        Q_EMIT logLine(line);
    }
}
