// SPDX-License-Identifier: MIT
#include "tusserverprocess.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QUrl>

namespace
{
constexpr int StartTimeoutMs = 15000;
constexpr int ExitTimeoutMs = 10000;
} // namespace

QByteArray TusServerProcess::Request::header(const QByteArray& name) const
{
    for (const auto& h : headers) {
        if (h.first.compare(name, Qt::CaseInsensitive) == 0)
            return h.second.isNull() ? QByteArray("") : h.second; // present, even when empty
    }
    return QByteArray();
}

bool TusServerProcess::Request::hasHeader(const QByteArray& name) const
{
    return !header(name).isNull();
}

QList<QByteArray> TusServerProcess::Request::headerNames() const
{
    QList<QByteArray> names;
    for (const auto& h : headers)
        names.append(h.first);
    return names;
}

TusServerProcess::TusServerProcess()
{
    m_process.setProgram(QStringLiteral("node"));
    // Keep the server's complaints visible in the test's output.
    m_process.setReadChannel(QProcess::StandardOutput);
    m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
}

TusServerProcess::~TusServerProcess()
{
    if (isRunning())
        kill();
}

QString TusServerProcess::serverScript()
{
    return QStringLiteral(GUI_HELPERS_TUS_SERVER_DIR "/server.js");
}

bool TusServerProcess::isInstalled(QString* why)
{
    const QString modules = QStringLiteral(GUI_HELPERS_TUS_SERVER_DIR "/node_modules/@tus/server/package.json");
    if (QFileInfo::exists(modules))
        return true;
    if (why)
        *why = QStringLiteral("the tus test server is not installed: run scripts/setup.sh (npm ci in tests/tus)");
    return false;
}

bool TusServerProcess::start()
{
    m_error.clear();
    if (!isInstalled(&m_error))
        return false;
    if (!m_dir.isValid() || isRunning()) {
        m_error = QStringLiteral("no temporary directory, or already running");
        return false;
    }

    QStringList arguments {serverScript(), QString::number(m_port), storeDirectory(), m_dir.filePath(QStringLiteral("requests.jsonl"))};
    if (m_schemeRelative)
        arguments.append(QStringLiteral("scheme-relative"));
    m_process.setArguments(arguments);
    m_process.start();
    // The server prints "listening <port>" from its listen callback, that is once the
    // socket is bound and accepting.
    QDeadlineTimer deadline(StartTimeoutMs);
    while (!deadline.hasExpired()) {
        while (m_process.canReadLine()) {
            const QByteArray line = m_process.readLine().trimmed();
            if (line.startsWith("listening ")) {
                m_port = quint16(line.mid(10).toUInt());
                return true;
            }
        }
        if (m_process.state() == QProcess::NotRunning) {
            m_error = QStringLiteral("the tus server did not start or exited at start (port %1 taken?): %2").arg(m_port).arg(m_process.errorString());
            return false;
        }
        m_process.waitForReadyRead(int(qMax<qint64>(1, deadline.remainingTime())));
    }
    m_error = QStringLiteral("the tus server did not start listening in time");
    kill();
    return false;
}

bool TusServerProcess::waitForExit()
{
    if (!isRunning() || m_process.waitForFinished(ExitTimeoutMs))
        return true;
    m_error = QStringLiteral("the tus server did not exit in time");
    return false;
}

bool TusServerProcess::stop()
{
    if (isRunning())
        m_process.terminate();
    return waitForExit() || kill();
}

bool TusServerProcess::kill()
{
    if (isRunning())
        m_process.kill();
    return waitForExit();
}

bool TusServerProcess::isRunning() const
{
    return m_process.state() != QProcess::NotRunning;
}

QString TusServerProcess::creationUrl() const
{
    return QStringLiteral("http://127.0.0.1:%1/files").arg(m_port);
}

QString TusServerProcess::storeDirectory() const
{
    return m_dir.filePath(QStringLiteral("store"));
}

QStringList TusServerProcess::uploadIds() const
{
    QStringList ids;
    const auto infos = QDir(storeDirectory()).entryInfoList({QStringLiteral("*.json")}, QDir::Files, QDir::Name);
    for (const QFileInfo& info : infos)
        ids.append(info.completeBaseName());
    return ids;
}

QString TusServerProcess::idOfUploadUrl(const QString& uploadUrl)
{
    return QUrl(uploadUrl).fileName();
}

QByteArray TusServerProcess::storedData(const QString& id) const
{
    QFile file(QDir(storeDirectory()).filePath(id));
    return !id.isEmpty() && file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QJsonObject TusServerProcess::storedInfo(const QString& id) const
{
    return QJsonDocument::fromJson(storedData(id + QStringLiteral(".json"))).object();
}

QMap<QString, QString> TusServerProcess::storedMetadata(const QString& id) const
{
    QMap<QString, QString> metadata;
    const QJsonObject values = storedInfo(id).value(QStringLiteral("metadata")).toObject();
    for (auto it = values.begin(); it != values.end(); ++it)
        metadata.insert(it.key(), it.value().toString());
    return metadata;
}

QList<TusServerProcess::Request> TusServerProcess::requests() const
{
    QList<Request> result;
    QFile file(m_dir.filePath(QStringLiteral("requests.jsonl")));
    if (!file.open(QIODevice::ReadOnly))
        return result;
    while (!file.atEnd()) {
        const QJsonObject line = QJsonDocument::fromJson(file.readLine()).object();
        if (line.isEmpty())
            continue;
        Request request;
        request.method = line.value(QStringLiteral("method")).toString().toUtf8();
        request.path = line.value(QStringLiteral("url")).toString().toUtf8();
        const QJsonArray headers = line.value(QStringLiteral("headers")).toArray();
        for (const QJsonValue& h : headers) {
            const QJsonArray pair = h.toArray();
            request.headers.append({pair.at(0).toString().toUtf8(), pair.at(1).toString().toUtf8()});
        }
        result.append(request);
    }
    return result;
}

QList<TusServerProcess::Request> TusServerProcess::requests(const QByteArray& method) const
{
    QList<Request> result;
    const auto all = requests();
    for (const Request& r : all) {
        if (r.method == method)
            result.append(r);
    }
    return result;
}

void TusServerProcess::clearRequests()
{
    QFile::remove(m_dir.filePath(QStringLiteral("requests.jsonl")));
}
