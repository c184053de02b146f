// SPDX-License-Identifier: MIT
//
// Resumable file uploads over HTTP with the tus protocol, version 1.0.0.
#pragma once

#include "gui_helpers_export.h"
#include "mutex.h"
#include "netmanager.h"

#include <QByteArray>
#include <QList>
#include <QNetworkReply>
#include <QObject>
#include <QString>

#include <iosfwd>
#include <memory>

class QNetworkRequest;
class TusUploaderPrivate;

namespace veltrax
{
class Variant;
}

/** Where a TusUploader stands. */
enum class TusState : int {
    Init = 0, ///< nothing started yet
    Start = 1, ///< the creation request (POST) is on its way or waiting to be resent
    Patch = 2, ///< chunks (PATCH) are being sent
    Finish = 3, ///< the whole file has arrived
    Error = 4, ///< the server refused, or the file could not be read
};

/** Writes "TusState::Patch(2)" and the like; values out of range as "Unknown case: <n>". */
GUI_HELPERS_EXPORT std::ostream& operator<<(std::ostream& stream, TusState state);

/**
 * Uploads one local file at a time to a tus 1.0.0 server.
 *
 * A POST on the server URL creates the upload; the server answers 201 with the upload's
 * "Location". The file then goes out in PATCH requests of at most chunkSize() bytes, each
 * with the "Upload-Offset" it starts at. The file size is taken when the upload starts.
 *
 * Failures:
 * - A transport failure (connection refused, reset, host not found, time-out, TLS) resends
 *   the step that failed, unchanged, after 5000 ms, as often as it takes (setRetryDelays()
 *   sets other delays and a limit). A PATCH is resent at the offset the server last
 *   acknowledged; unless setResumable() is on, nothing asks the server for its offset, so
 *   if it had kept part of the lost chunk it answers 409 and the upload fails. With a
 *   chunk larger than the socket buffers that early 409 can be cut off before Qt reads
 *   it, and the resend then repeats until the object is deleted: a host that wants to
 *   survive a server dying mid-chunk turns on setResumable(), or keeps chunks small or
 *   sets retry delays. A server that stops reading keeps a request waiting as long as
 *   the connection lasts, unless setStallTimeout() is set.
 * - An HTTP error status ends the upload: state Error and uploadFailed() with the reply's
 *   error text (with retry delays set, 423 and 5xx are retried instead). A server that
 *   answers and closes the connection before it has read a large body (an unknown upload
 *   URL, say) looks like a broken connection to Qt, and is retried as one.
 * - A creation reply other than 201, or a chunk reply other than 204, that Qt does not
 *   count as an error (a redirect, a 200 from a server that is not tus) is only logged; the
 *   upload then stays in its state and a new start is refused until the object goes.
 * - If the file cannot be opened or read when its chunks are due (removed, truncated,
 *   unreadable), or a 201 comes without a "Location", the upload fails with uploadFailed().
 *
 * Signals come from the thread of the shared network access manager (the GUI thread);
 * the internal lock is never held while they are emitted, so slots may call back into
 * the uploader, start the next upload, or delete it.
 *
 * Memory: one chunk is mapped, copied once into the request body and unmapped as soon as
 * the request is handed over; the body goes with its reply once the PATCH has finished,
 * before the next chunk is read. Peak use is about two chunks (the mapping and the copy)
 * beyond Qt's own socket buffers.
 */
class GUI_HELPERS_EXPORT TusUploader : public QObject
{
    Q_OBJECT

public:
    /** The chunk size used when none is set: 32 MiB. */
    static constexpr qint64 DefaultChunkSize = 33554432;
    /**
     * A request body must fit in one QByteArray, so no PATCH carries more than this (1 GiB),
     * whatever chunk size is set.
     */
    static constexpr qint64 MaximumChunkBody = qint64(1) << 30;

    /** @p serverUrl is the creation endpoint, the target of the POST. */
    explicit TusUploader(const QString& serverUrl, QObject* parent = nullptr);
    ~TusUploader() override;

    /**
     * Every request passes through here just before it is sent; override it to add
     * headers or to redirect requests (see breakRequest()). Called with the internal lock
     * held, on the thread that sends. The base version returns @p request unchanged.
     */
    virtual QNetworkRequest& prepareRequest(QNetworkRequest& request);

    /** Largest PATCH body from the next chunk on; a size below 1 selects DefaultChunkSize. */
    void setChunkSize(qint64 size);
    qint64 chunkSize() const;

    /** Credentials for every following request; empty texts send no header. */
    void setAuthentication(const QString& bearerToken, const QString& subscriptionKey);
    /** Destroy the uploader (deferred) once an upload has finished or failed. */
    void setDeleteOnFinished(bool deleteOnFinished);

    /** The wait before a failed step is resent when no retry delays are set. */
    static constexpr int DefaultRetryDelayMs = 5000;
    /**
     * How failed steps are resent. Empty (the default): every transport failure is retried
     * after DefaultRetryDelayMs, without limit, and every HTTP error status ends the upload.
     * Non-empty: the n-th consecutive failure (counted from 0) waits @p delaysMs[n] before
     * its step is resent; the failure after the last delay ends the upload with
     * uploadFailed(), whose reason names the last error. Any progress the server
     * acknowledges (a created upload, a stored chunk) starts the count again. With a list
     * set, answers 423 (locked) and 5xx count as failures to retry too; other 4xx answers
     * still end the upload at once. A negative wait counts as 0. Takes effect from the
     * next failure on.
     */
    void setRetryDelays(const QList<int>& delaysMs);

    /**
     * Off by default. When on, an upload survives a lost connection, a server that kept part
     * of a chunk, and the end of the process:
     * - After a transport failure or a 409 answer while patching, "HEAD <upload URL>" asks
     *   the server for its "Upload-Offset", and the chunks go on from there, whatever had
     *   been acknowledged before. The HEAD replaces the resend: after a transport failure it
     *   goes out when the resend would have (retry delays apply, and to a HEAD that fails in
     *   transport too); after a 409 at once (a second 409 without progress in between ends
     *   the upload). A 404 or 410 answer starts a new upload with a POST; another error
     *   status ends the upload.
     * - From the creation reply until the upload finishes, its URL is kept in the
     *   application's QSettings, group "TusUploads", under a fingerprint of the server URL
     *   and the file's absolute path, size and modification time. Success and
     *   abort(true) remove the entry.
     * - startUploadFile() for a file with a kept URL for this server asks HEAD first and
     *   goes on from the server's offset, in a new process too. When the server no longer
     *   knows the upload (404, 410) or its "Upload-Length" differs, a new upload starts.
     * Every HEAD carries "Tus-Resumable" and the authentication headers and passes through
     * prepareRequest(); a HEAD costs one request per interruption.
     */
    void setResumable(bool resumable);

    /**
     * 0 (the default): requests wait as long as the connection lasts. Otherwise a request
     * that moves no byte in either direction for @p ms milliseconds is aborted and handled
     * as a transport failure (so retried, and with setResumable() resumed from the
     * server's offset). Takes effect from the next request on.
     */
    void setStallTimeout(int ms);

    /**
     * Stops the running upload (state Start or Patch): the request in flight is aborted,
     * no retry or timer follows, the state becomes Error and uploadFailed() is emitted once
     * with the reason "Upload aborted". With @p terminate, "DELETE <upload URL>" asks the
     * server to drop what it has (when the upload was created), and the kept URL is
     * forgotten. Does nothing when no upload runs.
     */
    void abort(bool terminate = false);

    /**
     * Starts uploading @p filePath with the "Upload-Metadata" value @p metaData (built with
     * appendMetaData(); empty sends no such header, since servers reject an empty one).
     *
     * Returns false without any signal when @p filePath is not an existing file, which sets
     * the state to Error, or when an upload is still running (state Start or Patch),
     * changing nothing. The file is checked first, so a bad path sets Error even while an
     * upload runs; that upload goes on (its next step sets its state again), but a
     * transport error met in state Error is not retried. An empty file is complete once
     * created: no PATCH is sent.
     */
    bool startUploadFile(const QString& filePath, const QString& metaData);

    TusState getState() const;
    /** The upload's URL on the server (from the creation reply); empty before that. */
    QString serverFilePath() const;

    /**
     * Appends one "key value" pair to an "Upload-Metadata" value: a comma first unless
     * @p metaData is empty, then @p key, a space, and the Base64 of the JSON text of
     * @p value (UTF-8). Strings therefore arrive with their JSON quotes. A value without
     * JSON text (an empty variant) is sent as JSON null. Keys must not hold spaces or
     * commas; they are not checked. Returns @p metaData.
     */
    static QString& appendMetaData(QString& metaData, const QString& key, const veltrax::Variant& value);

    /**
     * Adds "Ocp-Apim-Subscription-Key" when a subscription key is set and, independently,
     * "Authorization: Bearer <token>" when a bearer token is set.
     */
    void fillAuthentication(QNetworkRequest& request) const;

    /**
     * Points @p request at "http://localhost/does/not/exist", which normally fails
     * (connection refused), for prepareRequest() overrides that exercise the failure
     * paths. Nothing in this class calls it.
     */
    void breakRequest(QNetworkRequest& request);

Q_SIGNALS:
    void uploadFailed(QString filePath, QString reason);
    void uploadFinished(QString filePath);
    /**
     * @p total is the size of the current request body (the chunk), not of the file;
     * @p actualSent counts the whole file and @p percent is of the whole file.
     * @p bytesPerSecond divides everything sent so far, earlier chunks included, by the
     * time since the current chunk was sent, so it overstates the rate after the first
     * chunk. Qt's closing (0, 0) report of each request is not passed on, so @p actualSent
     * never goes back.
     */
    void uploadProgress(QString filePath, qint64 total, qint64 actualSent, int percent, qint64 bytesPerSecond);

private Q_SLOTS:
    void onCreateFinished();
    void onPatchFinished();
    void onNetworkError(QNetworkReply::NetworkError code);
    void onProgress(qint64 bytesSent, qint64 bytesTotal);
    void sendStart();
    void sendPatch();

private:
    Q_DISABLE_COPY(TusUploader)
    friend class TusUploaderPrivate;
    std::unique_ptr<TusUploaderPrivate> const d;
};
