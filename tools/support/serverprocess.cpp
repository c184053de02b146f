// SPDX-License-Identifier: MIT
#include "serverprocess.h"
#include "runevents.h"

#include <QFileInfo>
#include <QRegularExpression>

namespace
{
// A chatty server must not fill our memory.
constexpr int MaxLines = 10000;
} // namespace

ServerProcess::ServerProcess(QObject* parent)
    : QObject(parent)
{
    connect(&m_process, &QProcess::readyReadStandardOutput, this, &ServerProcess::collect);
}

ServerProcess::~ServerProcess()
{
    if (isRunning())
        stop(5000);
}

void ServerProcess::collect()
{
    m_partial += m_process.readAllStandardOutput();
    m_stderr += m_process.readAllStandardError();
    int nl;
    while ((nl = m_partial.indexOf('\n')) >= 0) {
        const QString line = QString::fromUtf8(m_partial.left(nl)).trimmed();
        m_partial.remove(0, nl + 1);
        if (m_lines.size() >= MaxLines)
            m_lines.removeFirst();
        m_lines.append(line);
        Q_EMIT lineRead(line);
    }
}

bool ServerProcess::start(const QString& program, const QStringList& arguments, const QString& readyMarker, int timeoutMs)
{
    m_lines.clear();
    m_partial.clear();
    m_stderr.clear();
    m_error.clear();
    m_host.clear();
    m_port = 0;
    m_process.start(program, arguments);
    if (!m_process.waitForStarted(timeoutMs)) {
        m_error = QStringLiteral("%1 did not start: %2").arg(program, m_process.errorString());
        return false;
    }
    Q_EMIT processStarted(m_process.processId());
    const QRegularExpression address(QRegularExpression::escape(readyMarker) + QStringLiteral("(\\S+):(\\d+)"));
    QRegularExpressionMatch match;
    const auto ready = [&] {
        collect();
        for (const QString& line : qAsConst(m_lines)) {
            if ((match = address.match(line)).hasMatch())
                return true;
        }
        return !isRunning();
    };
    if (runEventsUntil(ready, timeoutMs) && match.hasMatch()) {
        m_host = match.captured(1);
        m_port = static_cast<quint16>(match.captured(2).toUInt());
        return true;
    }
    const QString name = QFileInfo(program).fileName();
    if (isRunning()) {
        m_error = QStringLiteral("%1 did not report \"%2\" within %3 ms").arg(name, readyMarker).arg(timeoutMs);
        stop(2000);
    } else {
        m_error = QStringLiteral("%1 exited at start with code %2: %3").arg(name).arg(m_process.exitCode()).arg(QString::fromLocal8Bit(m_stderr).trimmed());
    }
    return false;
}

bool ServerProcess::stop(int timeoutMs)
{
    bool ended = true;
    if (isRunning()) {
        m_process.terminate();
        if (!m_process.waitForFinished(timeoutMs)) {
            m_process.kill();
            m_process.waitForFinished(timeoutMs);
            ended = false;
        }
    }
    collect();
    return ended && m_process.exitStatus() == QProcess::NormalExit && m_process.exitCode() == 0;
}

QStringList ServerProcess::outputLines(int waitMs)
{
    if (waitMs > 0 && isRunning())
        runEventsUntil(
            [] {
                return false;
            },
            waitMs);
    collect();
    return m_lines;
}

bool ServerProcess::waitForOutputLine(const QString& text, int timeoutMs)
{
    const auto seen = [&] {
        collect();
        return !m_lines.filter(text).isEmpty();
    };
    return runEventsUntil(
               [&] {
                   return seen() || !isRunning();
               },
               timeoutMs)
        && seen();
}
