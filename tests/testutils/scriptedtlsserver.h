// SPDX-License-Identifier: MIT
//
// An in-process TLS server that writes whatever bytes a test scripts, for fault tests of
// clients: QTcpServer plus QSslSocket::startServerEncryption(). It lives on the test's
// thread, so tests must wait with QSignalSpy::wait / QTRY_* (never waitFor*()).
#pragma once

#include <QByteArray>
#include <QList>
#include <QPointer>
#include <QSslCertificate>
#include <QSslKey>
#include <QSslSocket>
#include <QTcpServer>

#include <functional>

class ScriptedTlsServer : public QTcpServer
{
    Q_OBJECT
public:
    /** Called for every complete line ("\n"-terminated, terminator included) a client sends. */
    using Responder = std::function<void(QSslSocket* socket, const QByteArray& line)>;

    ScriptedTlsServer(const QSslCertificate& certificate, const QSslKey& key, QObject* parent = nullptr);
    ~ScriptedTlsServer() override;

    /** Listens on 127.0.0.1 on a port of the system's choice. */
    bool listenOnLoopback();

    void setResponder(Responder responder) { m_responder = std::move(responder); }

    /** Every byte received on any connection, in arrival order. */
    QByteArray received() const { return m_received; }
    /** Complete lines received so far. */
    QList<QByteArray> lines() const { return m_lines; }
    /** Encrypted connections accepted so far (closed ones stay in the list as null). */
    QList<QPointer<QSslSocket>> connections() const { return m_sockets; }
    /** The most recent encrypted connection, or null. */
    QSslSocket* lastConnection() const;

    /**
     * Writes @p bytes one write per @p pieceSize bytes, @p intervalMs apart, so that the
     * client sees them in separate reads; closes the connection afterwards when @p closeAfter.
     */
    static void dribble(QSslSocket* socket, const QByteArray& bytes, int pieceSize = 1, int intervalMs = 2, bool closeAfter = false);

Q_SIGNALS:
    void encryptedConnection();

protected:
    void incomingConnection(qintptr descriptor) override;

private:
    void readFrom(QSslSocket* socket);

    QSslCertificate m_certificate;
    QSslKey m_key;
    Responder m_responder;
    QByteArray m_received;
    QList<QByteArray> m_lines;
    QList<QPointer<QSslSocket>> m_sockets;
};
