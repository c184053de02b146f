// SPDX-License-Identifier: MIT
#include "loadclient.h"

#include "settingsfile.h"

#include <QEventLoop>
#include <QTimer>

#include <algorithm>
#include <climits>

namespace
{

/** Size of the whole reply at the front of @p bytes; 0 while it is incomplete, -1 when it is no reply. */
int replySize(const QByteArray& bytes)
{
    const int word = bytes.indexOf(' ');
    const int length = word < 0 ? -1 : bytes.indexOf(' ', word + 1);
    if (length < 0)
        return bytes.size() > 32 ? -1 : 0;
    bool ok = false;
    const qint64 body = bytes.mid(word + 1, length - word - 1).toLongLong(&ok);
    if (!ok || body < 0 || body > INT_MAX - length - 1)
        return -1;
    return bytes.size() - length - 1 >= body ? int(length + 1 + body) : 0;
}

/** The settings of a tree body, sorted: the server may write them in any order. */
std::vector<veltrax::SettingsFile::Setting> settingsOf(const QByteArray& reply)
{
    const int body = reply.indexOf(' ', reply.indexOf(' ') + 1) + 1;
    if (body <= 0)
        return {};
    veltrax::SettingsFile tree;
    try {
        if (tree.deserialize(VxByteArray::view(reply.constData() + body, size_t(reply.size() - body)), 0) != reply.size() - body)
            return {};
    } catch (const std::exception&) {
        return {};
    }
    auto settings = tree.flattened();
    std::sort(settings.begin(), settings.end(), [](const auto& a, const auto& b) {
        return a.first < b.first;
    });
    return settings;
}

/** Byte for byte, or, for replies that carry a tree, setting for setting. */
bool sameReply(const QByteArray& actual, const QByteArray& expected)
{
    if (actual == expected)
        return true;
    const QByteArray word = expected.left(expected.indexOf(' ') + 1);
    if (word == "ERROR " || word == "ACK " || !actual.startsWith(word))
        return false;
    const auto settings = settingsOf(actual);
    return !settings.empty() && settings == settingsOf(expected);
}

} // namespace

LoadClient::LoadClient(const QString& host, quint16 port, QVector<Exchange> script, QObject* parent)
    : QObject(parent)
    , m_host(host)
    , m_port(port)
    , m_script(std::move(script))
{
    connect(&m_socket, &QSslSocket::encrypted, this, [this] {
        m_encrypted = true;
        Q_EMIT encrypted();
    });
    connect(&m_socket, &QSslSocket::readyRead, this, &LoadClient::readReplies);
    connect(&m_socket, QOverload<const QList<QSslError>&>::of(&QSslSocket::sslErrors), this, [this](const QList<QSslError>& errors) {
        fail(QStringLiteral("TLS: %1").arg(errors.value(0).errorString()));
    });
    connect(&m_socket, &QAbstractSocket::disconnected, this, [this] {
        fail(QStringLiteral("closed by the server after %1 replies").arg(m_answered));
    });
}

LoadClient::~LoadClient()
{
    // The socket, a member, says "disconnected" while it is destroyed, after the members
    // declared behind it are gone: nothing of ours may hear it then.
    m_socket.disconnect(this);
}

void LoadClient::connectToServer()
{
    m_socket.connectToHostEncrypted(m_host, m_port);
}

void LoadClient::runScript()
{
    m_running = true;
    sendNext();
}

void LoadClient::sendNext()
{
    if (m_done)
        return;
    if (m_answered == m_script.size()) {
        m_done = true;
        m_socket.disconnectFromHost();
        Q_EMIT finished();
        return;
    }
    m_socket.write(m_script.at(m_answered).request);
}

void LoadClient::readReplies()
{
    m_in += m_socket.readAll();
    while (m_running && !m_done && !m_in.isEmpty()) {
        if (m_answered >= m_script.size())
            return fail(QStringLiteral("%1 bytes nobody asked for").arg(m_in.size()));
        const int size = replySize(m_in);
        if (size == 0)
            return;
        if (size < 0 || !sameReply(m_in.left(size), m_script.at(m_answered).reply))
            return fail(QStringLiteral("reply %1 differs: \"%2\"").arg(m_answered).arg(QString::fromLatin1(m_in.left(40).toPercentEncoding(" "))));
        m_in.remove(0, size);
        ++m_answered;
        sendNext();
    }
}

void LoadClient::fail(const QString& why)
{
    if (m_done)
        return;
    m_done = true;
    m_failure = why;
    m_socket.abort();
    Q_EMIT finished();
}

LoadResult runLoad(const QString& host, quint16 port, int clients, const std::function<QVector<LoadClient::Exchange>(int)>& scriptFor, int timeoutMs)
{
    LoadResult result;
    result.clients = clients;
    std::vector<std::unique_ptr<LoadClient>> all;
    QEventLoop loop;
    QTimer deadline;
    deadline.setSingleShot(true);
    QObject::connect(&deadline, &QTimer::timeout, &loop, &QEventLoop::quit);
    deadline.start(timeoutMs);

    // Phase 1 is over when every client is encrypted or gone, phase 2 when every one is done.
    bool scripts = false;
    const auto settled = [&] {
        for (const auto& client : all) {
            if (!client->isDone() && (scripts || !client->isEncrypted()))
                return false;
        }
        return true;
    };
    for (int i = 0; i < clients; ++i) {
        all.emplace_back(new LoadClient(host, port, scriptFor(i)));
        QObject::connect(all.back().get(), &LoadClient::encrypted, &loop, [&] {
            if (settled())
                loop.quit();
        });
        QObject::connect(all.back().get(), &LoadClient::finished, &loop, [&] {
            if (settled())
                loop.quit();
        });
    }

    QElapsedTimer clock;
    clock.start();
    for (const auto& client : all)
        client->connectToServer();
    if (!settled())
        loop.exec();
    result.handshakeSeconds = clock.nsecsElapsed() / 1e9;
    for (const auto& client : all)
        result.encrypted += client->isEncrypted() ? 1 : 0;

    clock.restart();
    if (result.encrypted == clients && deadline.isActive()) {
        scripts = true;
        for (const auto& client : all)
            client->runScript();
        if (!settled())
            loop.exec();
    }
    result.requestSeconds = clock.nsecsElapsed() / 1e9;

    for (const auto& client : all) {
        result.requests += client->answered();
        if (client->isDone() && client->failure().isEmpty())
            ++result.completed;
        else if (result.failures.size() < 5)
            result.failures << (client->failure().isEmpty() ? QStringLiteral("unfinished after %1 replies").arg(client->answered()) : client->failure());
    }
    return result;
}
