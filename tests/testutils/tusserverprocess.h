// SPDX-License-Identifier: MIT
//
// Runs the real tus server (tests/tus/server.js: @tus/server with a file store) for the
// upload tests, and reads back what it stored and which requests it received.
#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QPair>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

/**
 * One tus server process on 127.0.0.1, with its file store and request log in a temporary
 * directory of its own that lives as long as this object.
 *
 * The first start() lets the server pick a free port; later starts reuse that port and the
 * same store, so an upload can go on after stop()/kill() and start() again. Every call
 * waits (boundedly) for the process to be listening or gone, so the port is free again
 * when stop() or kill() returns. The destructor kills a server that still runs.
 */
class TusServerProcess
{
public:
    /** One request as the server received it: header names as sent, in the order sent. */
    struct Request {
        QByteArray method;
        QByteArray path;
        QList<QPair<QByteArray, QByteArray>> headers;

        /** Value of the first header named @p name (case-insensitive), or a null array. */
        QByteArray header(const QByteArray& name) const;
        bool hasHeader(const QByteArray& name) const;
        QList<QByteArray> headerNames() const;
    };

    TusServerProcess();
    ~TusServerProcess();
    Q_DISABLE_COPY(TusServerProcess)

    /** Starts the server and waits until it listens; false with errorString() otherwise. */
    bool start();
    /** SIGTERM, then waits for the process to end. */
    bool stop();
    /** SIGKILL, then waits for the process to end: an abrupt crash as clients see it. */
    bool kill();
    bool isRunning() const;
    /** From the next start on, answer creations with "//host/files/<id>" locations. */
    void setSchemeRelativeLocations(bool on) { m_schemeRelative = on; }

    quint16 port() const { return m_port; }
    /** The creation endpoint, "http://127.0.0.1:<port>/files". */
    QString creationUrl() const;
    QString errorString() const { return m_error; }
    QString storeDirectory() const;

    /** Ids of the uploads in the store. */
    QStringList uploadIds() const;
    /** The last path segment of an upload URL, which is the upload's id. */
    static QString idOfUploadUrl(const QString& uploadUrl);
    /** Bytes the server has stored for the upload so far. */
    QByteArray storedData(const QString& id) const;
    /** The server's record of the upload (`<id>.json`: id, size, offset, metadata). */
    QJsonObject storedInfo(const QString& id) const;
    /** The upload's metadata as the server decoded it: key to decoded text. */
    QMap<QString, QString> storedMetadata(const QString& id) const;

    /** Every request received since the first start (or clearRequests()), oldest first. */
    QList<Request> requests() const;
    /** Only the requests with this method. */
    QList<Request> requests(const QByteArray& method) const;
    void clearRequests();

    /** Where the test server lives and whether its packages are installed. */
    static QString serverScript();
    static bool isInstalled(QString* why = nullptr);

private:
    bool waitForExit();

    QTemporaryDir m_dir;
    QProcess m_process;
    quint16 m_port = 0;
    QString m_error;
    bool m_schemeRelative = false;
};
