// SPDX-License-Identifier: MIT
//
// A small HTTP server in the test process that answers from a table of canned replies.
#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QMap>
#include <QPointer>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

/** One canned answer of the HTTP responder. */
// Every member has an initializer, so rows may leave the rest out without a warning.
struct Route {
    int status = 200;
    QByteArray reason = "OK";
    QByteArray body {};
    QByteArray extraHeaders {};
    // When set, the body goes out in pieces of these sizes, 300 ms apart, and the
    // connection then stalls with the rest unsent.
    QList<int> pieces {};
    // Answers "Range: bytes=N-" with 206 unless an If-Range differs from this ETag.
    QByteArray etag {};
    bool ranges = false;
    // The next `cuts` answers close the connection after `cutAfter` bytes of their body.
    int cuts = 0;
    int cutAfter = 0;
};

/** Answers requests on 127.0.0.1 from a table of paths (query included); 404 otherwise. */
class HttpResponder
{
public:
    bool listen()
    {
        QObject::connect(&m_server, &QTcpServer::newConnection, [this] {
            while (QTcpSocket* socket = m_server.nextPendingConnection())
                QObject::connect(socket, &QTcpSocket::readyRead, socket, [this, socket] {
                    serve(socket);
                });
        });
        return m_server.listen(QHostAddress::LocalHost);
    }
    QString url(const QByteArray& path) const { return QStringLiteral("http://127.0.0.1:%1").arg(m_server.serverPort()) + QLatin1String(path); }
    QMap<QByteArray, Route> routes;
    QList<QByteArray> requests; // the heads received, in order

private:
    void serve(QTcpSocket* socket)
    {
        QByteArray& request = m_pending[socket];
        request += socket->readAll();
        if (!request.contains("\r\n\r\n"))
            return;
        const QByteArray path = request.split(' ').value(1);
        Route route = routes.value(path, Route {404, "Not Found", "no such file"});
        requests.append(request);
        const QByteArray head = request.toLower();
        request.clear();
        if (route.cuts > 0) {
            --routes[path].cuts;
            route.pieces = {route.cutAfter};
        }
        const int range = head.indexOf("\r\nrange: bytes=");
        const int ifRange = head.indexOf("\r\nif-range: ");
        if (route.ranges && range >= 0 && (ifRange < 0 || head.mid(ifRange + 12).startsWith(route.etag.toLower() + "\r\n"))) {
            const qint64 first = head.mid(range + 15, head.indexOf('-', range + 15) - range - 15).toLongLong();
            const qint64 size = route.body.size();
            if (first >= size) {
                route = Route {416, "Range Not Satisfiable", {}, "Content-Range: bytes */" + QByteArray::number(size) + "\r\n"};
            } else {
                route.status = 206;
                route.reason = "Partial Content";
                route.extraHeaders
                    += "Content-Range: bytes " + QByteArray::number(first) + '-' + QByteArray::number(size - 1) + '/' + QByteArray::number(size) + "\r\n";
                route.body = route.body.mid(first);
            }
        }
        if (!route.etag.isEmpty())
            route.extraHeaders += "ETag: " + route.etag + "\r\n";
        socket->write("HTTP/1.1 " + QByteArray::number(route.status) + ' ' + route.reason + "\r\nContent-Length: " + QByteArray::number(route.body.size())
            + "\r\n" + route.extraHeaders + (route.pieces.isEmpty() ? "Connection: close\r\n" : "") + "\r\n");
        if (route.pieces.isEmpty()) {
            socket->write(route.body);
            socket->disconnectFromHost();
            return;
        }
        if (route.cuts > 0) {
            socket->write(route.body.left(route.cutAfter));
            socket->disconnectFromHost();
            return;
        }
        QPointer<QTcpSocket> guarded(socket);
        for (int i = 0, offset = 0; i < route.pieces.size(); offset += route.pieces.at(i++)) {
            const QByteArray piece = route.body.mid(offset, route.pieces.at(i));
            QTimer::singleShot(300 * i, socket, [guarded, piece] {
                if (guarded)
                    guarded->write(piece);
            });
        }
    }

    QTcpServer m_server;
    QHash<QTcpSocket*, QByteArray> m_pending;
};
