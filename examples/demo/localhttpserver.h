// SPDX-License-Identifier: MIT
//
// A small HTTP/1.1 server on 127.0.0.1 for the demo: it serves the installers named in the
// demo catalogue and offers a minimal tus 1.0.0 upload endpoint, so downloads and uploads
// work without any outside server.
#pragma once

#include <QByteArray>
#include <QHash>
#include <QMap>
#include <QObject>
#include <QString>
#include <QTcpServer>

class QTcpSocket;

/**
 * Local HTTP server.
 *
 * GET/HEAD /installers/<name> return the bytes registered with addFile(), with an ETag;
 * "Range: bytes=N-" gets the rest from N (206; 416 past the end) unless an If-Range names
 * another ETag.
 *
 * The tus endpoint is /files (core protocol and the creation extension):
 * OPTIONS /files describes it; POST /files with "Upload-Length" creates an upload
 * (201 and an absolute "Location"); HEAD /files/<id> gives "Upload-Offset" and
 * "Upload-Length"; PATCH /files/<id> with "Upload-Offset" equal to the current offset and
 * "Content-Type: application/offset+octet-stream" appends its body (204 and the new offset).
 * A wrong offset gives 409, an unknown upload 404, a missing or other "Tus-Resumable" 412,
 * bad metadata 400, a body beyond the declared length 413. Uploads are written to files in
 * the store directory.
 *
 * Requests are read with fixed limits (header block, body size, connections, idle time), so
 * no client can make the server grow without bound or hold a place for ever; a request beyond them is answered with an error
 * and the connection closed. Chunked request bodies are refused (411).
 */
class LocalHttpServer : public QTcpServer
{
    Q_OBJECT
public:
    static constexpr int MaxHeaderBytes = 16 * 1024;
    static constexpr qint64 MaxBodyBytes = 40 * 1024 * 1024;
    static constexpr qint64 MaxUploadBytes = 1024ll * 1024 * 1024;
    static constexpr int MaxConnections = 64;
    /** A connection without a byte from its client for this long is closed. */
    static constexpr int IdleTimeoutMs = 30000;

    /** Uploads are stored in @p storeDirectory (created when missing). */
    explicit LocalHttpServer(const QString& storeDirectory, QObject* parent = nullptr);
    ~LocalHttpServer() override;

    /** Listens on 127.0.0.1 on a free port. */
    bool start();
    /** "http://127.0.0.1:<port>". */
    QString baseUrl() const;
    /** The tus creation URL, baseUrl() + "/files". */
    QString tusUrl() const;

    /** Serves @p content at /installers/<name>; returns the full URL. */
    QString addFile(const QString& name, const QByteArray& content);

    /** One finished upload. */
    struct Upload {
        QString id;
        QString path;
        qint64 length = 0;
        qint64 offset = 0;
        /** Decoded "Upload-Metadata" pairs. */
        QMap<QString, QByteArray> metadata;
    };
    /** The uploads created so far. */
    QList<Upload> uploads() const;

Q_SIGNALS:
    /** An upload reached its declared length. */
    void uploadCompleted(const QString& id, const QString& path, qint64 length);
    /** One line per answered request ("PATCH /files/ab12 -> 204"). */
    void requestServed(int status, const QString& line);

protected:
    void incomingConnection(qintptr descriptor) override;

private:
    friend class HttpConnection;

    struct Request {
        QByteArray method;
        QByteArray path;
        QHash<QByteArray, QByteArray> headers; // names lower-case
        QByteArray body;
        bool closeAfter = false;
    };
    struct Response {
        int status = 200;
        QList<QPair<QByteArray, QByteArray>> headers;
        QByteArray body;
        bool headOnly = false;
        void setHeader(const QByteArray& name, const QByteArray& value) { headers.append(qMakePair(name, value)); }
    };

    Response handle(const Request& request);
    Response handleTus(const Request& request, const QByteArray& id);
    Response createUpload(const Request& request);
    Response patchUpload(const Request& request, Upload& upload);

    QString m_storeDirectory;
    QHash<QString, QByteArray> m_files;
    QMap<QString, Upload> m_uploads;
    int m_connections = 0;
};
