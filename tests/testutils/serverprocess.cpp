// SPDX-License-Identifier: MIT
#include "serverprocess.h"

#include <QElapsedTimer>
#include <QEventLoop>
#include <QRegularExpression>
#include <QTimer>

namespace
{
/**
 * Lets the calling thread's event loop run for @p ms: clients under test often live on
 * this thread and must keep talking while we wait for the server's output.
 */
void runEventLoop(int ms)
{
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
}
} // namespace

ServerProcess::ServerProcess() = default;

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
        m_lines.append(QString::fromUtf8(m_partial.left(nl)).trimmed());
        m_partial.remove(0, nl + 1);
    }
}

bool ServerProcess::start(const QString& program, const QStringList& arguments, const QString& readyMarker, int timeoutMs)
{
    m_lines.clear();
    m_partial.clear();
    m_stderr.clear();
    m_error.clear();
    m_process.start(program, arguments);
    if (!m_process.waitForStarted(timeoutMs)) {
        m_error = QStringLiteral("%1 did not start: %2").arg(program, m_process.errorString());
        return false;
    }
    const QRegularExpression address(QRegularExpression::escape(readyMarker) + QStringLiteral("(\\S+):(\\d+)"));
    QElapsedTimer timer;
    timer.start();
    int seen = 0;
    while (timer.elapsed() < timeoutMs) {
        runEventLoop(20);
        collect();
        for (; seen < m_lines.size(); ++seen) {
            const QRegularExpressionMatch m = address.match(m_lines.at(seen));
            if (m.hasMatch()) {
                m_host = m.captured(1);
                m_port = static_cast<quint16>(m.captured(2).toUInt());
                return true;
            }
        }
        if (m_process.state() == QProcess::NotRunning) {
            collect();
            m_error = QStringLiteral("%1 exited with code %2: %3").arg(program).arg(m_process.exitCode()).arg(QString::fromLocal8Bit(m_stderr));
            return false;
        }
    }
    m_error = QStringLiteral("%1 did not report \"%2\" within %3 ms").arg(program, readyMarker).arg(timeoutMs);
    stop(2000);
    return false;
}

bool ServerProcess::stop(int timeoutMs)
{
    if (m_process.state() == QProcess::NotRunning)
        return m_process.exitStatus() == QProcess::NormalExit && m_process.exitCode() == 0;
    m_process.terminate();
    if (!m_process.waitForFinished(timeoutMs)) {
        m_process.kill();
        m_process.waitForFinished(timeoutMs);
        collect();
        return false;
    }
    collect();
    return m_process.exitStatus() == QProcess::NormalExit && m_process.exitCode() == 0;
}

QStringList ServerProcess::outputLines(int waitMs)
{
    if (waitMs > 0 && isRunning())
        runEventLoop(waitMs);
    collect();
    return m_lines;
}

bool ServerProcess::waitForOutputLine(const QString& text, int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    for (;;) {
        collect();
        for (const QString& line : qAsConst(m_lines)) {
            if (line.contains(text))
                return true;
        }
        if (timer.elapsed() >= timeoutMs || !isRunning())
            return false;
        runEventLoop(20);
    }
}
