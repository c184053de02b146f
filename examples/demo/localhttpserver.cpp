// SPDX-License-Identifier: MIT
#include "localhttpserver.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QHostAddress>
#include <QPointer>
#include <QTcpSocket>
#include <QTimer>
#include <QUuid>

namespace
{

const QByteArray TusVersion = QByteArrayLiteral("1.0.0");
const QByteArray FilesPath = QByteArrayLiteral("/files");
const QByteArray InstallersPrefix = QByteArrayLiteral("/installers/");

QByteArray reasonPhrase(int status)
{
    switch (status) {
    case 200:
        return "OK";
    case 201:
        return "Created";
    case 204:
        return "No Content";
    case 206:
        return "Partial Content";
    case 400:
        return "Bad Request";
    case 404:
        return "Not Found";
    case 405:
        return "Method Not Allowed";
    case 409:
        return "Conflict";
    case 411:
        return "Length Required";
    case 412:
        return "Precondition Failed";
    case 413:
        return "Payload Too Large";
    case 415:
        return "Unsupported Media Type";
    case 416:
        return "Range Not Satisfiable";
    case 431:
        return "Request Header Fields Too Large";
    case 500:
        return "Internal Server Error";
    case 503:
        return "Service Unavailable";
    default:
        return "Status";
    }
}

/** A non-negative decimal number of at most 18 digits, or -1. */
qint64 parseLength(const QByteArray& text)
{
    if (text.isEmpty() || text.size() > 18)
        return -1;
    qint64 value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9')
            return -1;
        value = value * 10 + (c - '0');
    }
    return value;
}

} // namespace

/** One client connection: reads requests one after the other and writes the answers. */
class HttpConnection : public QObject
{
public:
    HttpConnection(QTcpSocket* socket, LocalHttpServer* server)
        : QObject(server)
        , m_socket(socket)
        , m_server(server)
    {
        socket->setParent(this);
        connect(socket, &QTcpSocket::readyRead, this, &HttpConnection::readMore);
        connect(socket, &QTcpSocket::disconnected, this, &HttpConnection::finish);
        // A client that goes quiet gives its place back.
        m_idle.setSingleShot(true);
        m_idle.setInterval(LocalHttpServer::IdleTimeoutMs);
        connect(&m_idle, &QTimer::timeout, this, &HttpConnection::close);
        m_idle.start();
    }
    ~HttpConnection() override
    {
        // The socket goes with this object; its last signals must not reach us any more.
        m_socket->disconnect(this);
    }

private:
    void readMore()
    {
        m_idle.start();
        m_in += m_socket->readAll();
        while (!m_closing && parseOne()) { }
    }

    /** Takes one complete request from the buffer and answers it; false when more bytes are needed. */
    bool parseOne()
    {
        if (m_bodyLength < 0) {
            const int end = m_in.indexOf("\r\n\r\n");
            if (end < 0) {
                if (m_in.size() > LocalHttpServer::MaxHeaderBytes)
                    fail(431);
                return false;
            }
            if (end > LocalHttpServer::MaxHeaderBytes) {
                fail(431);
                return false;
            }
            if (!parseHeader(m_in.left(end)))
                return false;
            m_in.remove(0, end + 4);
        }
        if (m_in.size() < m_bodyLength)
            return false;
        m_request.body = m_in.left(static_cast<int>(m_bodyLength));
        m_in.remove(0, static_cast<int>(m_bodyLength));
        m_bodyLength = -1;
        answer(m_server->handle(m_request), m_request);
        m_request = LocalHttpServer::Request();
        return true;
    }

    bool parseHeader(const QByteArray& block)
    {
        const QList<QByteArray> lines = block.split('\n');
        const QList<QByteArray> requestLine = lines.constFirst().trimmed().split(' ');
        if (requestLine.size() != 3 || !requestLine.at(2).startsWith("HTTP/1.")) {
            fail(400);
            return false;
        }
        m_request.method = requestLine.at(0);
        m_request.path = requestLine.at(1);
        const int query = m_request.path.indexOf('?');
        if (query >= 0)
            m_request.path.truncate(query);
        for (int i = 1; i < lines.size(); ++i) {
            const QByteArray& line = lines.at(i);
            const int colon = line.indexOf(':');
            if (colon <= 0) {
                fail(400);
                return false;
            }
            m_request.headers.insert(line.left(colon).trimmed().toLower(), line.mid(colon + 1).trimmed());
        }
        if (m_request.headers.contains("transfer-encoding")) {
            fail(411);
            return false;
        }
        const QByteArray length = m_request.headers.value("content-length", "0");
        m_bodyLength = parseLength(length);
        if (m_bodyLength < 0) {
            fail(400);
            return false;
        }
        if (m_bodyLength > LocalHttpServer::MaxBodyBytes) {
            fail(413);
            return false;
        }
        const QByteArray connection = m_request.headers.value("connection").toLower();
        m_request.closeAfter = connection == "close" || (requestLine.at(2) == "HTTP/1.0" && connection != "keep-alive");
        return true;
    }

    void answer(const LocalHttpServer::Response& response, const LocalHttpServer::Request& request)
    {
        QByteArray out = "HTTP/1.1 " + QByteArray::number(response.status) + ' ' + reasonPhrase(response.status) + "\r\n";
        bool hasLength = false;
        for (const auto& header : response.headers) {
            out += header.first + ": " + header.second + "\r\n";
            hasLength = hasLength || header.first.compare("Content-Length", Qt::CaseInsensitive) == 0;
        }
        if (!hasLength && response.status != 204)
            out += "Content-Length: " + QByteArray::number(response.body.size()) + "\r\n";
        if (request.closeAfter)
            out += "Connection: close\r\n";
        out += "\r\n";
        if (!response.headOnly)
            out += response.body;
        m_socket->write(out);
        Q_EMIT m_server->requestServed(response.status,
            QStringLiteral("%1 %2 -> %3").arg(QString::fromLatin1(request.method.left(16)), QString::fromLatin1(request.path.left(120))).arg(response.status));
        if (request.closeAfter)
            close();
    }

    /** Answers a request that cannot be read and drops the connection. */
    void fail(int status)
    {
        LocalHttpServer::Response response;
        response.status = status;
        LocalHttpServer::Request request = m_request;
        request.closeAfter = true;
        m_in.clear();
        answer(response, request);
    }

    void close()
    {
        m_closing = true;
        m_socket->disconnectFromHost();
    }

    void finish()
    {
        if (m_finished)
            return;
        m_finished = true;
        --m_server->m_connections;
        deleteLater();
    }

    QTcpSocket* m_socket;
    LocalHttpServer* m_server;
    QByteArray m_in;
    LocalHttpServer::Request m_request;
    qint64 m_bodyLength = -1;
    bool m_closing = false;
    bool m_finished = false;
    QTimer m_idle;
};

LocalHttpServer::LocalHttpServer(const QString& storeDirectory, QObject* parent)
    : QTcpServer(parent)
    , m_storeDirectory(storeDirectory)
{
    QDir().mkpath(m_storeDirectory);
}

LocalHttpServer::~LocalHttpServer() = default;

bool LocalHttpServer::start()
{
    return listen(QHostAddress::LocalHost, 0);
}

QString LocalHttpServer::baseUrl() const
{
    return QStringLiteral("http://127.0.0.1:%1").arg(serverPort());
}

QString LocalHttpServer::tusUrl() const
{
    return baseUrl() + QString::fromLatin1(FilesPath);
}

QString LocalHttpServer::addFile(const QString& name, const QByteArray& content)
{
    m_files.insert(name, content);
    return baseUrl() + QString::fromLatin1(InstallersPrefix) + name;
}

QList<LocalHttpServer::Upload> LocalHttpServer::uploads() const
{
    return m_uploads.values();
}

void LocalHttpServer::incomingConnection(qintptr descriptor)
{
    auto* socket = new QTcpSocket;
    if (!socket->setSocketDescriptor(descriptor)) {
        delete socket;
        return;
    }
    if (m_connections >= MaxConnections) {
        socket->write("HTTP/1.1 503 Service Unavailable\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
        socket->disconnectFromHost();
        connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        return;
    }
    ++m_connections;
    new HttpConnection(socket, this);
}

LocalHttpServer::Response LocalHttpServer::handle(const Request& request)
{
    Response response;
    if (request.path.startsWith(InstallersPrefix)) {
        const QString name = QString::fromUtf8(request.path.mid(InstallersPrefix.size()));
        if (request.method != "GET" && request.method != "HEAD") {
            response.status = 405;
            response.setHeader("Allow", "GET, HEAD");
        } else if (!m_files.contains(name)) {
            response.status = 404;
        } else {
            const QByteArray& content = m_files.value(name);
            const QByteArray etag = '"' + QCryptographicHash::hash(content, QCryptographicHash::Sha1).toHex().left(16) + '"';
            response.headOnly = request.method == "HEAD";
            response.setHeader("Content-Type", "application/octet-stream");
            response.setHeader("ETag", etag);
            response.setHeader("Accept-Ranges", "bytes");
            // Only the "bytes=N-" form a resuming client sends; If-Range of another version gets the whole file.
            const QByteArray range = request.headers.value("range");
            const QByteArray ifRange = request.headers.value("if-range");
            bool ok = false;
            const qint64 first = range.startsWith("bytes=") && range.endsWith('-') ? range.mid(6, range.size() - 7).toLongLong(&ok) : -1;
            if (!ok || first < 0 || (!ifRange.isEmpty() && ifRange != etag)) {
                response.body = content;
            } else if (first >= content.size()) {
                response.status = 416;
                response.setHeader("Content-Range", "bytes */" + QByteArray::number(content.size()));
            } else {
                response.status = 206;
                response.setHeader("Content-Range",
                    "bytes " + QByteArray::number(first) + '-' + QByteArray::number(content.size() - 1) + '/' + QByteArray::number(content.size()));
                response.body = content.mid(first);
            }
        }
        return response;
    }
    if (request.path == FilesPath || request.path == FilesPath + '/')
        return handleTus(request, QByteArray());
    if (request.path.startsWith(FilesPath + '/'))
        return handleTus(request, request.path.mid(FilesPath.size() + 1));
    response.status = 404;
    return response;
}

LocalHttpServer::Response LocalHttpServer::handleTus(const Request& request, const QByteArray& id)
{
    Response response;
    response.setHeader("Tus-Resumable", TusVersion);
    if (request.method == "OPTIONS") {
        response.status = 204;
        response.setHeader("Tus-Version", TusVersion);
        response.setHeader("Tus-Extension", "creation");
        response.setHeader("Tus-Max-Size", QByteArray::number(MaxUploadBytes));
        return response;
    }
    if (request.headers.value("tus-resumable") != TusVersion) {
        response.status = 412;
        response.setHeader("Tus-Version", TusVersion);
        return response;
    }
    if (id.isEmpty()) {
        if (request.method != "POST") {
            response.status = 405;
            return response;
        }
        return createUpload(request);
    }
    const auto it = m_uploads.find(QString::fromLatin1(id));
    if (it == m_uploads.end()) {
        response.status = 404;
        return response;
    }
    if (request.method == "HEAD") {
        response.status = 200;
        response.headOnly = true;
        response.setHeader("Upload-Offset", QByteArray::number(it->offset));
        response.setHeader("Upload-Length", QByteArray::number(it->length));
        response.setHeader("Cache-Control", "no-store");
        return response;
    }
    if (request.method == "PATCH")
        return patchUpload(request, *it);
    response.status = 405;
    return response;
}

LocalHttpServer::Response LocalHttpServer::createUpload(const Request& request)
{
    Response response;
    response.setHeader("Tus-Resumable", TusVersion);
    const qint64 length = parseLength(request.headers.value("upload-length"));
    if (length < 0) {
        response.status = 400;
        return response;
    }
    if (length > MaxUploadBytes) {
        response.status = 413;
        return response;
    }
    Upload upload;
    // "key base64,key base64"; a key alone is allowed and has an empty value.
    const QByteArray metadata = request.headers.value("upload-metadata");
    for (const QByteArray& pair : metadata.split(',')) {
        const QByteArray item = pair.trimmed();
        if (item.isEmpty())
            continue;
        const int space = item.indexOf(' ');
        const QByteArray key = space < 0 ? item : item.left(space);
        const QByteArray value = space < 0 ? QByteArray() : item.mid(space + 1);
        const auto decoded = QByteArray::fromBase64Encoding(value, QByteArray::AbortOnBase64DecodingErrors);
        if (key.isEmpty() || !decoded) {
            response.status = 400;
            return response;
        }
        upload.metadata.insert(QString::fromUtf8(key), *decoded);
    }
    upload.id = QUuid::createUuid().toString(QUuid::Id128);
    upload.path = QDir(m_storeDirectory).filePath(upload.id);
    upload.length = length;
    QFile file(upload.path);
    if (!file.open(QIODevice::WriteOnly)) {
        response.status = 500;
        return response;
    }
    file.close();
    m_uploads.insert(upload.id, upload);
    response.status = 201;
    response.setHeader("Location", (tusUrl() + QLatin1Char('/') + upload.id).toUtf8());
    if (length == 0)
        Q_EMIT uploadCompleted(upload.id, upload.path, 0);
    return response;
}

LocalHttpServer::Response LocalHttpServer::patchUpload(const Request& request, Upload& upload)
{
    Response response;
    response.setHeader("Tus-Resumable", TusVersion);
    if (request.headers.value("content-type") != "application/offset+octet-stream") {
        response.status = 415;
        return response;
    }
    const qint64 offset = parseLength(request.headers.value("upload-offset"));
    if (offset < 0) {
        response.status = 400;
        return response;
    }
    if (offset != upload.offset) {
        response.status = 409;
        response.setHeader("Upload-Offset", QByteArray::number(upload.offset));
        return response;
    }
    if (request.body.size() > upload.length - upload.offset) {
        response.status = 413;
        return response;
    }
    QFile file(upload.path);
    if (!file.open(QIODevice::ReadWrite) || !file.seek(upload.offset) || file.write(request.body) != request.body.size()) {
        response.status = 500;
        return response;
    }
    file.close();
    upload.offset += request.body.size();
    response.status = 204;
    response.setHeader("Upload-Offset", QByteArray::number(upload.offset));
    if (upload.offset == upload.length && !request.body.isEmpty())
        Q_EMIT uploadCompleted(upload.id, upload.path, upload.length);
    return response;
}
