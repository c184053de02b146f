// SPDX-License-Identifier: MIT
#include "referenceserver.h"

#include "updateserverprotocol.h"

#include <QDateTime>
#include <QFile>
#include <QHostAddress>
#include <QSaveFile>

#include <cstdio>
#include <malloc.h>

namespace
{

/** A file name made only of harmless characters, so a label can never leave the inbox. */
QString safeFileName(const std::string& label)
{
    QString name;
    for (char c : label) {
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_' || c == '.';
        name += plain ? QLatin1Char(c) : QLatin1Char('_');
    }
    if (name.isEmpty() || name.startsWith(QLatin1Char('.')))
        name.prepend(QLatin1String("log"));
    return name.left(200);
}

} // namespace

ReferenceServer::ReferenceServer(
    const QList<QSslCertificate>& chain, const QSslKey& key, const veltrax::SettingsFile& catalogue, const ServerBehaviour& behaviour, QObject* parent)
    : QTcpServer(parent)
    , m_chain(chain)
    , m_key(key)
    , m_configuration(QSslConfiguration::defaultConfiguration())
    , m_catalogue(catalogue)
    , m_behaviour(behaviour)
{
    m_configuration.setLocalCertificateChain(chain);
    m_configuration.setPrivateKey(key);
    // Clients are not asked for certificates, so every handshake would load the system's CA
    // bundle into its context for nothing.
    m_configuration.setCaCertificates({});
}

ReferenceServer::~ReferenceServer()
{
    // Each connection (a child of its socket) tells the server when it closes: end them
    // while the server is still whole, not from QObject's destructor, when only its QObject
    // part is left.
    qDeleteAll(findChildren<QSslSocket*>(QString(), Qt::FindDirectChildrenOnly));
}

void ReferenceServer::connectionClosed()
{
    // After a burst of connections the allocator keeps their freed TLS buffers; hand them
    // back so a server that is idle again is as small as before.
    if (--m_connections == 0)
        malloc_trim(0);
}

void ReferenceServer::logLine(const QString& line)
{
    const QByteArray bytes = (QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs) + QLatin1Char(' ') + line + QLatin1Char('\n')).toUtf8();
    std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stdout);
    std::fflush(stdout);
}

void ReferenceServer::incomingConnection(qintptr descriptor)
{
    auto* socket = new QSslSocket(this);
    if (!socket->setSocketDescriptor(descriptor)) {
        logLine(QStringLiteral("rejected a connection: %1").arg(socket->errorString()));
        delete socket;
        return;
    }
    socket->setSslConfiguration(m_configuration);
    ++m_connections;
    new ServerConnection(socket, this);
    socket->startServerEncryption();
}

ServerConnection::ServerConnection(QSslSocket* socket, ReferenceServer* server)
    : QObject(socket)
    , m_socket(socket)
    , m_server(server)
    , m_reader(server->behaviour().maxRecordSize)
{
    m_timer.setSingleShot(true);
    connect(&m_timer, &QTimer::timeout, this, &ServerConnection::pump);
    // Runs from the accept on, so a client that never completes the handshake is dropped too.
    m_idle.setSingleShot(true);
    connect(&m_idle, &QTimer::timeout, this, [this] {
        ReferenceServer::logLine(QStringLiteral("%1 idle for %2 ms; closing").arg(peer()).arg(m_idle.interval()));
        m_socket->abort();
        m_socket->deleteLater();
    });
    if (server->behaviour().idleTimeoutMs > 0)
        m_idle.start(server->behaviour().idleTimeoutMs);
    connect(socket, &QSslSocket::readyRead, this, &ServerConnection::readRequests);
    connect(socket, &QSslSocket::encrypted, this, [this] {
        if (m_idle.interval() > 0)
            m_idle.start();
    });
    connect(socket, &QSslSocket::disconnected, socket, &QObject::deleteLater);
    connect(socket, QOverload<const QList<QSslError>&>::of(&QSslSocket::sslErrors), this, [this](const QList<QSslError>& errors) {
        for (const QSslError& e : errors)
            ReferenceServer::logLine(QStringLiteral("%1 TLS error: %2").arg(peer(), e.errorString()));
    });
    connect(socket, &QAbstractSocket::errorOccurred, this, [this](QAbstractSocket::SocketError error) {
        if (error != QAbstractSocket::RemoteHostClosedError)
            ReferenceServer::logLine(QStringLiteral("%1 connection error: %2").arg(peer(), m_socket->errorString()));
    });
}

ServerConnection::~ServerConnection()
{
    m_server->connectionClosed();
}

QString ServerConnection::peer() const
{
    return QStringLiteral("%1:%2").arg(m_socket->peerAddress().toString()).arg(m_socket->peerPort());
}

QByteArray ServerConnection::frame(const QByteArray& word, const QByteArray& body)
{
    return word + ' ' + QByteArray::number(body.size()) + ' ' + body;
}

QByteArray ServerConnection::errorReply(const QString& text)
{
    // The client takes the text up to the first line feed, so the text must hold none.
    QByteArray body = text.toUtf8();
    body.replace('\n', ' ');
    return frame(updateserver::ERR, body + '\n');
}

void ServerConnection::readRequests()
{
    m_reader.append(m_socket->readAll());
    if (m_idle.interval() > 0)
        m_idle.start();
    while (!m_closing) {
        RequestReader::Request request = m_reader.next();
        switch (request.kind) {
        case RequestReader::Request::None:
            return;
        case RequestReader::Request::Line:
            handleLine(request.bytes);
            break;
        case RequestReader::Request::UsageRecord:
            handleUsageRecord(request.bytes);
            break;
        case RequestReader::Request::Refused:
            ReferenceServer::logLine(QStringLiteral("%1 %2; closing").arg(peer(), QString::fromLatin1(request.bytes)));
            // Whatever was queued before still goes out, then this answer, then the close
            // (marked first: the answer may be written at once).
            m_closing = true;
            enqueue(errorReply(QString::fromLatin1(request.bytes)));
            return;
        }
    }
}

QByteArray ServerConnection::answerFor(const QList<QByteArray>& words, QString& summary) const
{
    const ServerBehaviour& behaviour = m_server->behaviour();
    const QByteArray& command = words.first();
    if (!behaviour.answerError.isEmpty()) {
        summary = QStringLiteral("ERROR (forced)");
        return errorReply(behaviour.answerError);
    }

    QByteArray replyWord;
    int argumentCount = 2;
    if (command == updateserver::LIST) {
        replyWord = updateserver::LIST;
    } else if (command == updateserver::LIST2) {
        replyWord = updateserver::LIST2;
    } else if (command == updateserver::GET2) {
        replyWord = updateserver::GET2;
        argumentCount = 3;
    } else if (command == updateserver::GET) {
        summary = QStringLiteral("ERROR (GET)");
        return errorReply(QStringLiteral("GET is not supported, use GE2T"));
    } else {
        summary = QStringLiteral("ERROR (unknown command)");
        return errorReply(QStringLiteral("Unknown command %1").arg(QString::fromLatin1(command.left(32))));
    }
    if (words.size() != argumentCount + 1) {
        summary = QStringLiteral("ERROR (arguments)");
        return errorReply(QStringLiteral("%1 takes %2 arguments").arg(QString::fromLatin1(command)).arg(argumentCount));
    }

    const std::string id = words.at(1).toStdString();
    const veltrax::SettingsFile& catalogue = m_server->catalogue();
    if (id.empty() || !catalogue.hasSubTree(id, false)) {
        summary = QStringLiteral("ERROR (unknown id)");
        return errorReply(QStringLiteral("Unknown id %1").arg(QString::fromStdString(id)));
    }
    VxByteArray tree;
    catalogue.subTree(id).serialize(tree);
    const QByteArray body(tree.data(), static_cast<int>(tree.size()));
    summary = QStringLiteral("%1 %2").arg(QString::fromLatin1(replyWord)).arg(body.size());
    return frame(replyWord, body);
}

void ServerConnection::handleLine(const QByteArray& line)
{
    const QList<QByteArray> words = line.split(' ');
    QString summary;
    QByteArray reply;
    if (!m_server->behaviour().neverAnswer)
        reply = answerFor(words, summary);
    else
        summary = QStringLiteral("(no answer)");
    ReferenceServer::logLine(QStringLiteral("%1 %2 -> %3").arg(peer(), QString::fromLatin1(line.left(200)), summary));
    if (!reply.isEmpty())
        enqueue(reply);
}

void ServerConnection::handleUsageRecord(const QByteArray& body)
{
    const ServerBehaviour& behaviour = m_server->behaviour();
    QString summary;
    QByteArray reply;
    int stored = 0;
    if (!behaviour.answerError.isEmpty()) {
        summary = QStringLiteral("ERROR (forced)");
        reply = errorReply(behaviour.answerError);
    } else if (behaviour.inbox.isEmpty()) {
        summary = QStringLiteral("ERROR (no inbox)");
        reply = errorReply(QStringLiteral("Usage data are not accepted here"));
    } else {
        veltrax::SettingsFile logs;
        bool readable = false;
        try {
            const VxByteArray bytes = VxByteArray::view(body.constData(), static_cast<size_t>(body.size()));
            readable = logs.deserialize(bytes, 0) == body.size();
        } catch (const std::exception& e) {
            summary = QStringLiteral("(%1) ").arg(QString::fromUtf8(e.what()));
        }
        if (!readable) {
            summary += QStringLiteral("ERROR (malformed record)");
            reply = errorReply(QStringLiteral("Malformed usage record"));
        } else {
            const QDir inbox(behaviour.inbox);
            bool failed = false;
            for (const veltrax::SettingsFile::Setting& entry : logs.flattened()) {
                std::string content;
                if (entry.second.type() == veltrax::Variant::BinaryObject)
                    content = entry.second.toConstBinaryObject().toStdString();
                else
                    entry.second.writeContentsToString(content);
                const QString base = safeFileName(entry.first);
                QString path = inbox.filePath(base + QStringLiteral(".log"));
                for (int n = 1; QFileInfo::exists(path); ++n)
                    path = inbox.filePath(QStringLiteral("%1-%2.log").arg(base).arg(n));
                QSaveFile file(path);
                if (!file.open(QIODevice::WriteOnly) || file.write(content.data(), static_cast<qint64>(content.size())) != static_cast<qint64>(content.size())
                    || !file.commit()) {
                    failed = true;
                    break;
                }
                ++stored;
            }
            if (failed) {
                summary = QStringLiteral("ERROR (inbox not writable)");
                reply = errorReply(QStringLiteral("Usage data could not be stored"));
            } else {
                summary = QStringLiteral("ACK, %1 logs stored").arg(stored);
                reply = frame(updateserver::ACK, updateserver::USAGE);
            }
        }
    }
    if (behaviour.neverAnswer) {
        summary = QStringLiteral("(no answer)");
        reply.clear();
    }
    ReferenceServer::logLine(QStringLiteral("%1 USAGE %2 -> %3").arg(peer()).arg(body.size()).arg(summary));
    if (!reply.isEmpty())
        enqueue(reply);
}

void ServerConnection::enqueue(const QByteArray& reply)
{
    m_queue.append(reply);
    if (!m_current.isEmpty() || m_timer.isActive())
        return;
    // Without a delay the reply goes out now, not after a trip through the timer list.
    if (m_server->behaviour().delayMs == 0)
        pump();
    else
        m_timer.start(m_server->behaviour().delayMs);
}

void ServerConnection::pump()
{
    const ServerBehaviour& behaviour = m_server->behaviour();
    // A connection that is being answered is not idle, however slowly the answer goes.
    if (m_idle.interval() > 0)
        m_idle.start();
    if (m_current.isEmpty()) {
        if (m_queue.isEmpty())
            return;
        m_current = m_queue.takeFirst();
        m_currentOffset = 0;
    }
    qint64 piece = m_current.size() - m_currentOffset;
    if (behaviour.chunkSize > 0)
        piece = qMin<qint64>(piece, behaviour.chunkSize);
    if (behaviour.closeAfter >= 0)
        piece = qMin<qint64>(piece, behaviour.closeAfter - m_currentOffset);
    if (piece > 0) {
        m_socket->write(m_current.constData() + m_currentOffset, piece);
        m_socket->flush();
        m_currentOffset += piece;
    }
    if (behaviour.closeAfter >= 0 && m_currentOffset >= behaviour.closeAfter && m_currentOffset < m_current.size()) {
        ReferenceServer::logLine(QStringLiteral("%1 closing after %2 of %3 reply bytes").arg(peer()).arg(m_currentOffset).arg(m_current.size()));
        m_closing = true;
        m_queue.clear();
        m_current.clear();
        m_socket->disconnectFromHost();
        return;
    }
    if (m_currentOffset < m_current.size()) {
        m_timer.start(behaviour.chunkIntervalMs);
        return;
    }
    m_current.clear();
    m_currentOffset = 0;
    if (m_closing) {
        m_socket->disconnectFromHost();
        return;
    }
    if (!m_queue.isEmpty())
        m_timer.start(behaviour.delayMs);
}
