// SPDX-License-Identifier: MIT
#include "scriptedtlsserver.h"

#include <QHostAddress>
#include <QTimer>

#include <memory>

ScriptedTlsServer::ScriptedTlsServer(const QSslCertificate& certificate, const QSslKey& key, QObject* parent)
    : QTcpServer(parent)
    , m_certificate(certificate)
    , m_key(key)
{
}

ScriptedTlsServer::~ScriptedTlsServer()
{
    for (const QPointer<QSslSocket>& s : qAsConst(m_sockets)) {
        if (s)
            s->abort();
    }
}

bool ScriptedTlsServer::listenOnLoopback()
{
    return listen(QHostAddress::LocalHost, 0);
}

QSslSocket* ScriptedTlsServer::lastConnection() const
{
    for (int i = m_sockets.size() - 1; i >= 0; --i) {
        if (m_sockets.at(i))
            return m_sockets.at(i);
    }
    return nullptr;
}

void ScriptedTlsServer::incomingConnection(qintptr descriptor)
{
    auto* socket = new QSslSocket(this);
    if (!socket->setSocketDescriptor(descriptor)) {
        delete socket;
        return;
    }
    socket->setLocalCertificate(m_certificate);
    socket->setPrivateKey(m_key);
    // The client's errors are the client's business; a server without client certificates
    // reports none.
    connect(socket, &QSslSocket::encrypted, this, [this, socket] {
        m_sockets.append(socket);
        Q_EMIT encryptedConnection();
    });
    connect(socket, &QSslSocket::readyRead, this, [this, socket] {
        readFrom(socket);
    });
    connect(socket, &QSslSocket::disconnected, socket, &QObject::deleteLater);
    socket->startServerEncryption();
}

void ScriptedTlsServer::readFrom(QSslSocket* socket)
{
    const QByteArray bytes = socket->readAll();
    m_received += bytes;
    // Line splitting works on this connection's bytes only.
    QByteArray pending = socket->property("pendingLine").toByteArray() + bytes;
    int nl;
    while ((nl = pending.indexOf('\n')) >= 0) {
        const QByteArray line = pending.left(nl + 1);
        pending.remove(0, nl + 1);
        m_lines.append(line);
        if (m_responder)
            m_responder(socket, line);
    }
    socket->setProperty("pendingLine", pending);
}

void ScriptedTlsServer::dribble(QSslSocket* socket, const QByteArray& bytes, int pieceSize, int intervalMs, bool closeAfter)
{
    auto* timer = new QTimer(socket);
    timer->setInterval(intervalMs);
    auto offset = std::make_shared<int>(0);
    QPointer<QSslSocket> guard(socket);
    QObject::connect(timer, &QTimer::timeout, socket, [guard, timer, bytes, pieceSize, offset, closeAfter] {
        if (!guard)
            return;
        if (*offset >= bytes.size()) {
            timer->stop();
            timer->deleteLater();
            if (closeAfter)
                guard->disconnectFromHost();
            return;
        }
        guard->write(bytes.mid(*offset, pieceSize));
        guard->flush();
        *offset += pieceSize;
    });
    timer->start();
}
