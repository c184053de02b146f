// SPDX-License-Identifier: MIT
#include "tusuploader.h"

#include "journaller.h"
#include "variant.h"
#include "vxtypes.h"

#include <QBuffer>
#include <QCryptographicHash>
#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QNetworkRequest>
#include <QPointer>
#include <QSettings>
#include <QTimer>
#include <QUrl>

#include <atomic>
#include <new>
#include <ostream>
#include <stdexcept>

namespace
{
const QByteArray TusVersion = QByteArrayLiteral("1.0.0");
const QString SettingsGroup = QStringLiteral("TusUploads");

int httpStatus(const QNetworkReply* reply)
{
    return reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
}
} // namespace

class TusUploaderPrivate
{
public:
    /** What a retry sends again. */
    enum class Step { Create, Patch, Head };

    TusUploaderPrivate(TusUploader* q, const QString& serverUrl)
        : q(q)
        , serverUrl(serverUrl)
    {
        retryTimer.setSingleShot(true);
        QObject::connect(&retryTimer, &QTimer::timeout, q, [this] { retry(); });
        stallTimer.setSingleShot(true);
        QObject::connect(&stallTimer, &QTimer::timeout, q, [this] { abortStalled(); });
    }

    /** Asks the server how much of the upload it has; the answer goes to onHeadFinished(). */
    void sendHead();
    void onHeadFinished(QNetworkReply* finished);
    /** Forgets the upload URL and creates a new upload. Call with the lock held. */
    void startAnew(const QString& why);
    /** Resends @p step after the next delay, or ends the upload when the delays are used up. */
    void retryOrFail(veltrax::Lock& lock, Step step, const QString& error);
    void retry();
    /** Arms the stall timer for @p sent, re-armed by every byte it moves. */
    void watch(QNetworkReply* sent);
    void abortStalled();
    /** Keeps or drops the upload URL under settingsKey (only set when resumable). */
    void remember();
    void forget();
    /** Stops the request in flight without any of its signals reaching us. */
    void dropReply();

    /** Sends the chunk at the acknowledged offset; returns why it could not, or empty. */
    QString patchNextChunk();
    /**
     * @p reply when it is the request in flight and answered @p expectedStatus; otherwise
     * null, and @p step's unexpected status is logged for @p caller. The reply is deleted
     * later in every case. Call with the lock held.
     */
    QNetworkReply* takeFinishedReply(QNetworkReply* reply, int expectedStatus, const char* caller, const QString& step);
    /** Ends the upload in state Finish and reports it; call with the lock held once. */
    void finish(veltrax::Lock& lock);
    /** Ends the upload in state Error and reports @p reason; call with the lock held once. */
    void fail(veltrax::Lock& lock, const QString& reason);
    /** What finish() and fail() share: the state, the file, the signal, deleteOnFinished. */
    void end(veltrax::Lock& lock, TusState state, const QString& reason);
    void closeFile();

    TusUploader* const q;
    const QString serverUrl;
    QString uploadUrl;
    QString filePath;
    TusState state = TusState::Init;
    qint64 fileSize = 0;
    qint64 offset = 0;
    // Set without the lock, so atomic.
    std::atomic<qint64> chunkSize {TusUploader::DefaultChunkSize};
    qint64 currentChunkLength = 0;
    QFile* file = nullptr;
    qint64 chunkStartTime = 0;
    veltrax::NetManager netManager;
    QString metaData;
    QString bearerToken;
    QString subscriptionKey;
    bool deleteOnFinished = false;
    mutable veltrax::Mutex mutex;
    QList<int> retryDelays;
    // Failures since the server last acknowledged progress.
    int failures = 0;
    bool resumable = false;
    int stallTimeoutMs = 0;
    // A 409 has been answered with a HEAD and no progress came since: the next one ends it.
    bool conflictSeen = false;
    // The request in flight was aborted by the stall timer.
    bool stalled = false;
    Step retryStep = Step::Create;
    QTimer retryTimer;
    QTimer stallTimer;
    // Where the upload URL is kept while the upload runs; empty when not resumable.
    QString settingsKey;

    // The request in flight; a PATCH owns its body, which must live as long as the reply
    // may read it (Qt may still ask for data after an early error answer).
    QPointer<QNetworkReply> reply;
};

std::ostream& operator<<(std::ostream& stream, TusState state)
{
    switch (state) {
    case TusState::Init:
        return stream << "TusState::Init(" << int(state) << ")";
    case TusState::Start:
        return stream << "TusState::Start(" << int(state) << ")";
    case TusState::Patch:
        return stream << "TusState::Patch(" << int(state) << ")";
    case TusState::Finish:
        return stream << "TusState::Finish(" << int(state) << ")";
    case TusState::Error:
        return stream << "TusState::Error(" << int(state) << ")";
    }
    return stream << "Unknown case: " << int(state);
}

TusUploader::TusUploader(const QString& serverUrl, QObject* parent)
    : QObject(parent)
    , d(new TusUploaderPrivate(this, serverUrl))
{
    setChunkSize(0);
}

TusUploader::~TusUploader()
{
    veltrax::Lock lock(d->mutex);
    // The shared access manager outlives us: stop our request. A reply that has already
    // failed or finished (we may be deleted from a slot of its signals) is only let go.
    if (QNetworkReply* reply = d->reply.data()) {
        disconnect(reply, nullptr, this, nullptr);
        if (reply->isRunning() && reply->error() == QNetworkReply::NoError)
            reply->abort();
        reply->deleteLater();
    }
    delete d->file;
}

QNetworkRequest& TusUploader::prepareRequest(QNetworkRequest& request)
{
    return request;
}

void TusUploader::setChunkSize(qint64 size)
{
    d->chunkSize.store(size < 1 ? DefaultChunkSize : size);
}

qint64 TusUploader::chunkSize() const
{
    return d->chunkSize.load();
}

void TusUploader::setAuthentication(const QString& bearerToken, const QString& subscriptionKey)
{
    veltrax::Lock lock(d->mutex);
    d->bearerToken = bearerToken;
    d->subscriptionKey = subscriptionKey;
}

void TusUploader::setDeleteOnFinished(bool deleteOnFinished)
{
    veltrax::Lock lock(d->mutex);
    d->deleteOnFinished = deleteOnFinished;
}

void TusUploader::setResumable(bool resumable)
{
    veltrax::Lock lock(d->mutex);
    d->resumable = resumable;
}

void TusUploader::setStallTimeout(int ms)
{
    veltrax::Lock lock(d->mutex);
    d->stallTimeoutMs = qMax(0, ms);
}

void TusUploader::abort(bool terminate)
{
    veltrax::Lock lock(d->mutex);
    if (d->state != TusState::Start && d->state != TusState::Patch)
        return;
    if (d->retryTimer.isActive())
        d->retryTimer.stop();
    d->dropReply();
    if (terminate) {
        if (!d->uploadUrl.isEmpty()) {
            QNetworkRequest request {QUrl(d->uploadUrl)};
            request.setRawHeader(QByteArrayLiteral("Tus-Resumable"), TusVersion);
            fillAuthentication(request);
            request.setAttribute(QNetworkRequest::CustomVerbAttribute, QByteArrayLiteral("DELETE"));
            prepareRequest(request);
            // Nobody waits for the answer: the upload is over either way.
            QNetworkReply* sent = d->netManager->deleteResource(request);
            connect(sent, &QNetworkReply::finished, sent, &QObject::deleteLater);
        }
        d->forget();
    }
    d->fail(lock, tr("Upload aborted"));
}

void TusUploader::setRetryDelays(const QList<int>& delaysMs)
{
    veltrax::Lock lock(d->mutex);
    // A timer never fires on a negative wait: the upload would hang.
    d->retryDelays.clear();
    for (int delay : delaysMs)
        d->retryDelays.append(qMax(0, delay));
}

bool TusUploader::startUploadFile(const QString& filePath, const QString& metaData)
{
    veltrax::Lock lock(d->mutex);
    const QFileInfo info(filePath);
    if (!info.isFile()) {
        JERROR("no such file: " << filePath);
        d->state = TusState::Error;
        return false;
    }
    if (d->state == TusState::Start || d->state == TusState::Patch) {
        JALERT("refused " << filePath << ": still uploading " << d->filePath);
        return false;
    }

    d->closeFile();
    // A retry still due from an upload that a bad path set to Error must not go out now.
    // (Checked first: a timer may only be stopped from its own thread.)
    if (d->retryTimer.isActive())
        d->retryTimer.stop();
    d->filePath = filePath;
    d->metaData = metaData;
    d->uploadUrl.clear();
    d->offset = 0;
    d->currentChunkLength = 0;
    d->failures = 0;
    d->conflictSeen = false;
    d->fileSize = info.size();
    d->settingsKey.clear();
    if (d->resumable) {
        const QByteArray print = d->serverUrl.toUtf8() + '\n' + info.absoluteFilePath().toUtf8() + '\n' + QByteArray::number(d->fileSize) + '\n'
            + QByteArray::number(info.lastModified().toMSecsSinceEpoch());
        d->settingsKey = QString::fromLatin1(QCryptographicHash::hash(print, QCryptographicHash::Sha256).toHex());
        QSettings settings;
        settings.beginGroup(SettingsGroup);
        d->uploadUrl = settings.value(d->settingsKey).toString();
    }
    if (!d->uploadUrl.isEmpty()) {
        JDEBUG(filePath << " (" << d->fileSize << " bytes) resumes at " << d->uploadUrl);
        d->state = TusState::Start;
        d->sendHead();
        return true;
    }
    JDEBUG(filePath << " (" << d->fileSize << " bytes) to " << d->serverUrl);
    sendStart();
    return true;
}

TusState TusUploader::getState() const
{
    veltrax::Lock lock(d->mutex);
    return d->state;
}

QString TusUploader::serverFilePath() const
{
    veltrax::Lock lock(d->mutex);
    return d->uploadUrl;
}

QString& TusUploader::appendMetaData(QString& metaData, const QString& key, const veltrax::Variant& value)
{
    QByteArray json;
    try {
        // Not bare: a string keeps its JSON quotes, so the server gets JSON text for
        // every kind and can tell the string "42" from the number 42.
        json = QByteArray::fromStdString(value.toJsonString(false));
    } catch (const std::exception& e) {
        // Only an empty variant has no JSON text; JSON's own word for nothing fits it.
        JALERT("value of " << key << " has no JSON text (" << e.what() << "), sending null");
        json = QByteArrayLiteral("null");
    }
    if (!metaData.isEmpty())
        metaData += QLatin1Char(',');
    metaData += key;
    metaData += QLatin1Char(' ');
    metaData += QString::fromLatin1(json.toBase64());
    return metaData;
}

void TusUploader::fillAuthentication(QNetworkRequest& request) const
{
    veltrax::Lock lock(d->mutex);
    if (!d->subscriptionKey.isEmpty())
        request.setRawHeader(QByteArrayLiteral("Ocp-Apim-Subscription-Key"), d->subscriptionKey.toUtf8());
    if (!d->bearerToken.isEmpty())
        request.setRawHeader(QByteArrayLiteral("Authorization"), QByteArrayLiteral("Bearer ") + d->bearerToken.toUtf8());
}

void TusUploader::breakRequest(QNetworkRequest& request)
{
    request.setUrl(QUrl(QStringLiteral("http://localhost/does/not/exist")));
}

void TusUploader::sendStart()
{
    veltrax::Lock lock(d->mutex);
    d->state = TusState::Start;

    QNetworkRequest request {QUrl(d->serverUrl)};
    request.setRawHeader(QByteArrayLiteral("Tus-Resumable"), TusVersion);
    if (!d->metaData.isEmpty())
        request.setRawHeader(QByteArrayLiteral("Upload-Metadata"), d->metaData.toUtf8());
    fillAuthentication(request);
    request.setRawHeader(QByteArrayLiteral("Upload-Length"), QByteArray::number(d->fileSize));

    prepareRequest(request);
    QNetworkReply* reply = d->netManager->post(request, QByteArray());
    d->reply = reply;
    d->watch(reply);
    connect(reply, &QNetworkReply::finished, this, &TusUploader::onCreateFinished);
    connect(reply, &QNetworkReply::errorOccurred, this, &TusUploader::onNetworkError);
}

void TusUploader::onCreateFinished()
{
    veltrax::Lock lock(d->mutex);
    QNetworkReply* reply = d->takeFinishedReply(qobject_cast<QNetworkReply*>(sender()), 201, __func__, QStringLiteral("creation of %1").arg(d->filePath));
    if (!reply)
        return;
    d->failures = 0;
    d->conflictSeen = false;

    QByteArray location = reply->rawHeader(QByteArrayLiteral("Location"));
    if (location.isEmpty()) {
        d->fail(lock, tr("The server created the upload but did not say where it is."));
        return;
    }
    // "//host/path" lacks only the scheme; the server URL's is the one meant. Only the
    // first character is looked at: a path-relative "/path" is not supported.
    if (location.startsWith('/'))
        location.prepend(d->serverUrl.section(QLatin1Char(':'), 0, 0).toUtf8() + ':');
    d->uploadUrl = QString::fromUtf8(location);
    JDEBUG(d->filePath << " goes to " << d->uploadUrl);
    d->remember();

    if (d->fileSize == 0) {
        // Nothing to send: an empty PATCH would only restate what the creation said.
        d->finish(lock);
        return;
    }

    d->closeFile();
    d->file = new QFile(d->filePath);
    if (!d->file->open(QIODevice::ReadOnly)) {
        d->fail(lock, tr("Cannot open %1: %2").arg(d->filePath, d->file->errorString()));
        return;
    }
    const QString failure = d->patchNextChunk();
    if (!failure.isEmpty())
        d->fail(lock, failure);
}

void TusUploader::sendPatch()
{
    veltrax::Lock lock(d->mutex);
    const QString failure = d->patchNextChunk();
    if (!failure.isEmpty())
        d->fail(lock, failure);
}

QString TusUploaderPrivate::patchNextChunk()
{
    veltrax::Lock lock(mutex);
    if (!file)
        return TusUploader::tr("%1 is not open").arg(filePath);
    currentChunkLength = qMin(qMin(chunkSize.load(), TusUploader::MaximumChunkBody), fileSize - offset);

    QNetworkRequest request {QUrl(uploadUrl)};
    request.setRawHeader(QByteArrayLiteral("Tus-Resumable"), TusVersion);
    request.setRawHeader(QByteArrayLiteral("Connection"), QByteArrayLiteral("keep-alive"));
    request.setRawHeader(QByteArrayLiteral("Upload-Offset"), QByteArray::number(offset));
    request.setRawHeader(QByteArrayLiteral("Content-Length"), QByteArray::number(currentChunkLength));
    request.setRawHeader(QByteArrayLiteral("Content-Type"), QByteArrayLiteral("application/offset+octet-stream"));
    q->fillAuthentication(request);

    // Touching a mapped page beyond the end of the file is a SIGBUS, so a file that shrank
    // since the start is refused here. (One truncated by another process during the copy
    // below is beyond what a read-only mapping can guard against.)
    const qint64 sizeNow = file->size();
    if (sizeNow < offset + currentChunkLength)
        return TusUploader::tr("%1 shrank to %2 bytes during the upload").arg(filePath).arg(sizeNow);

    // Mapping reads only the pages of this chunk; the one copy into the body lets the
    // mapping go right after hand-over while Qt sends at its own pace.
    uchar* mapped = file->map(offset, currentChunkLength);
    if (!mapped)
        return TusUploader::tr("Cannot read %1 at %2: %3").arg(filePath).arg(offset).arg(file->errorString());
    auto* body = new QBuffer();
    try {
        body->setData(QByteArray(reinterpret_cast<const char*>(mapped), int(currentChunkLength)));
    } catch (const std::bad_alloc&) {
        delete body;
        file->unmap(mapped);
        return TusUploader::tr("Not enough memory for a chunk of %1 bytes").arg(currentChunkLength);
    }
    // Qt reads a QBuffer body straight from its byte array; the buffer is never opened.
    body->close();

    state = TusState::Patch;
    chunkStartTime = VxTime_timeStampNow();

    q->prepareRequest(request);
    QNetworkReply* sent = netManager->sendCustomRequest(request, QByteArrayLiteral("PATCH"), body);
    file->unmap(mapped);
    body->setParent(sent);
    reply = sent;
    watch(sent);
    QObject::connect(sent, &QNetworkReply::finished, q, &TusUploader::onPatchFinished);
    QObject::connect(sent, &QNetworkReply::errorOccurred, q, &TusUploader::onNetworkError);
    QObject::connect(sent, &QNetworkReply::uploadProgress, q, &TusUploader::onProgress);
    return QString();
}

void TusUploader::onPatchFinished()
{
    veltrax::Lock lock(d->mutex);
    if (!d->takeFinishedReply(qobject_cast<QNetworkReply*>(sender()), 204, __func__, QStringLiteral("chunk at %1 of %2").arg(d->offset).arg(d->filePath)))
        return;
    d->failures = 0;
    d->conflictSeen = false;

    d->offset += d->currentChunkLength;
    if (d->offset < d->fileSize) {
        // Queued behind the reply's deferred deletion, so that the body just sent is freed
        // before the next chunk is read.
        QMetaObject::invokeMethod(this, &TusUploader::sendPatch, Qt::QueuedConnection);
        return;
    }

    d->finish(lock);
}

void TusUploader::onNetworkError(QNetworkReply::NetworkError code)
{
    auto* reply = qobject_cast<QNetworkReply*>(sender());
    if (!reply)
        return;
    reply->deleteLater();

    veltrax::Lock lock(d->mutex);
    if (reply != d->reply)
        return;

    d->stallTimer.stop();
    const int status = httpStatus(reply);
    // The server kept part of a chunk (or of an earlier one we did not hear of): ask it.
    if (status == 409 && d->resumable && d->state == TusState::Patch && !d->conflictSeen) {
        JALERT(d->filePath << ": offset " << d->offset << " refused, asking the server for its own");
        d->conflictSeen = true;
        d->reply = nullptr;
        d->sendHead();
        return;
    }
    // A locked upload or a server in trouble may recover; a refusal will not.
    const bool retryStatus = !d->retryDelays.isEmpty() && (status == 423 || status >= 500);
    if (status != 0 && !retryStatus) {
        JERROR("server answered " << status);
        d->fail(lock, reply->errorString());
        return;
    }
    if (d->state != TusState::Start && d->state != TusState::Patch)
        return;
    JALERT(d->filePath << ": network error " << int(code) << " in state " << int(d->state));
    using Step = TusUploaderPrivate::Step;
    const Step step = d->state == TusState::Start ? Step::Create : d->resumable ? Step::Head : Step::Patch;
    d->retryOrFail(lock, step, d->stalled ? tr("No data moved for %1 ms").arg(d->stallTimeoutMs) : reply->errorString());
}

void TusUploader::onProgress(qint64 bytesSent, qint64 bytesTotal)
{
    veltrax::Lock lock(d->mutex);
    if (sender() != d->reply)
        return;
    // Qt closes every upload with a (0, 0) report; passed on, it would set the progress
    // back to the start of the chunk just completed.
    if (bytesSent == 0 && bytesTotal == 0 && d->currentChunkLength > 0)
        return;
    const qint64 actualSent = bytesSent + d->offset;
    const int percent = d->fileSize > 0 ? int(actualSent * 100 / d->fileSize) : 100;
    const qint64 elapsed = qMax<qint64>(1, VxTime_timeStampNow() - d->chunkStartTime);
    const qint64 bytesPerSecond = actualSent * 1000 / elapsed;
    const QString filePath = d->filePath;
    lock.unlock();

    Q_EMIT uploadProgress(filePath, bytesTotal, actualSent, percent, bytesPerSecond);
}

QNetworkReply* TusUploaderPrivate::takeFinishedReply(QNetworkReply* finished, int expectedStatus, const char* caller, const QString& step)
{
    if (!finished)
        return nullptr;
    finished->deleteLater();
    if (finished != reply)
        return nullptr; // a request of an earlier upload
    reply = nullptr;
    stallTimer.stop();

    const int status = httpStatus(finished);
    if (status == expectedStatus)
        return finished;
    // Failures are onNetworkError()'s to handle; an unexpected success status waits.
    if (finished->error() == QNetworkReply::NoError)
        JLOG_TO(gJournal, caller, JLL_ALERT, step << " answered " << status << ", not " << expectedStatus << "; waiting");
    return nullptr;
}

void TusUploaderPrivate::finish(veltrax::Lock& lock)
{
    JDEBUG(filePath << " complete, " << fileSize << " bytes");
    forget();
    end(lock, TusState::Finish, QString());
}

void TusUploaderPrivate::fail(veltrax::Lock& lock, const QString& reason)
{
    JERROR(filePath << ": " << reason);
    end(lock, TusState::Error, reason);
}

void TusUploaderPrivate::end(veltrax::Lock& lock, TusState endState, const QString& reason)
{
    // Callers are slots entered from the event loop, so this lock is the only hold.
    Q_ASSERT(mutex.recursionCount() == 1);
    state = endState;
    for (QTimer* timer : {&retryTimer, &stallTimer}) {
        if (timer->isActive())
            timer->stop();
    }
    closeFile();
    const QString path = filePath;
    const bool deleteSelf = deleteOnFinished;
    lock.unlock();

    // A slot may delete us, and this private part with us.
    TusUploader* const uploader = q;
    QPointer<TusUploader> self(uploader);
    if (endState == TusState::Finish)
        Q_EMIT uploader->uploadFinished(path);
    else
        Q_EMIT uploader->uploadFailed(path, reason);
    if (self && deleteSelf)
        uploader->deleteLater();
}

void TusUploaderPrivate::closeFile()
{
    if (file) {
        file->close();
        file->deleteLater();
        file = nullptr;
    }
}

void TusUploaderPrivate::sendHead()
{
    veltrax::Lock lock(mutex);
    QNetworkRequest request {QUrl(uploadUrl)};
    request.setRawHeader(QByteArrayLiteral("Tus-Resumable"), TusVersion);
    q->fillAuthentication(request);
    // Lets prepareRequest() overrides tell it from the other requests.
    request.setAttribute(QNetworkRequest::CustomVerbAttribute, QByteArrayLiteral("HEAD"));
    q->prepareRequest(request);
    QNetworkReply* sent = netManager->head(request);
    reply = sent;
    watch(sent);
    QObject::connect(sent, &QNetworkReply::finished, q, [this, sent] { onHeadFinished(sent); });
}

void TusUploaderPrivate::onHeadFinished(QNetworkReply* finished)
{
    finished->deleteLater();
    veltrax::Lock lock(mutex);
    if (finished != reply)
        return;
    reply = nullptr;
    stallTimer.stop();

    const int status = httpStatus(finished);
    if (status == 0 || (!retryDelays.isEmpty() && (status == 423 || status >= 500))) {
        retryOrFail(lock, Step::Head, stalled ? TusUploader::tr("No data moved for %1 ms").arg(stallTimeoutMs) : finished->errorString());
        return;
    }
    if (status == 404 || status == 410) {
        startAnew(QStringLiteral("the server no longer knows it"));
        return;
    }
    if (status != 200 && status != 204) {
        fail(lock, finished->errorString());
        return;
    }
    bool offsetOk = false;
    const qint64 serverOffset = finished->rawHeader(QByteArrayLiteral("Upload-Offset")).toLongLong(&offsetOk);
    const QByteArray lengthHeader = finished->rawHeader(QByteArrayLiteral("Upload-Length"));
    if (!offsetOk || serverOffset < 0 || serverOffset > fileSize || (!lengthHeader.isEmpty() && lengthHeader.toLongLong() != fileSize)) {
        startAnew(QStringLiteral("the server's offset or length does not fit the file"));
        return;
    }
    JDEBUG(filePath << ": the server has " << serverOffset << " bytes, we had " << offset);
    if (serverOffset > offset)
        failures = 0;
    offset = serverOffset;
    if (offset == fileSize) {
        finish(lock);
        return;
    }
    if (!file) {
        file = new QFile(filePath);
        if (!file->open(QIODevice::ReadOnly)) {
            fail(lock, TusUploader::tr("Cannot open %1: %2").arg(filePath, file->errorString()));
            return;
        }
    }
    const QString failure = patchNextChunk();
    if (!failure.isEmpty())
        fail(lock, failure);
}

void TusUploaderPrivate::startAnew(const QString& why)
{
    JALERT(filePath << ": " << uploadUrl << " cannot go on (" << why << "), creating a new upload");
    forget();
    uploadUrl.clear();
    offset = 0;
    q->sendStart();
}

void TusUploaderPrivate::retryOrFail(veltrax::Lock& lock, Step step, const QString& error)
{
    int delay = TusUploader::DefaultRetryDelayMs;
    if (!retryDelays.isEmpty()) {
        if (failures >= retryDelays.size()) {
            fail(lock, TusUploader::tr("Gave up after %1 failed attempts, the last with: %2").arg(failures + 1).arg(error));
            return;
        }
        delay = retryDelays.at(failures++);
    }
    JALERT(filePath << ": " << error << ", step " << int(step) << " again in " << delay << " ms");
    retryStep = step;
    // A coarse timer may fire up to 5 % early; short waits are kept to the millisecond.
    retryTimer.setTimerType(delay >= 2000 ? Qt::CoarseTimer : Qt::PreciseTimer);
    retryTimer.start(delay);
}

void TusUploaderPrivate::retry()
{
    switch (retryStep) {
    case Step::Create:
        q->sendStart();
        break;
    case Step::Patch:
        q->sendPatch();
        break;
    case Step::Head:
        sendHead();
        break;
    }
}

void TusUploaderPrivate::watch(QNetworkReply* sent)
{
    stalled = false;
    if (stallTimeoutMs <= 0) {
        stallTimer.stop();
        return;
    }
    stallTimer.start(stallTimeoutMs);
    const auto moved = [this, sent] {
        if (sent == reply && stallTimer.isActive())
            stallTimer.start(stallTimeoutMs);
    };
    QObject::connect(sent, &QNetworkReply::uploadProgress, q, moved);
    QObject::connect(sent, &QNetworkReply::downloadProgress, q, moved);
}

void TusUploaderPrivate::abortStalled()
{
    veltrax::Lock lock(mutex);
    const QPointer<QNetworkReply> stuck = reply;
    if (!stuck)
        return;
    JALERT(filePath << ": no data moved for " << stallTimeoutMs << " ms, giving up on this request");
    stalled = true;
    // The reply reports the failure at once, through its usual handlers, which signal: so
    // without our lock.
    lock.unlock();
    stuck->abort();
}

void TusUploaderPrivate::remember()
{
    if (settingsKey.isEmpty())
        return;
    QSettings settings;
    settings.beginGroup(SettingsGroup);
    settings.setValue(settingsKey, uploadUrl);
}

void TusUploaderPrivate::forget()
{
    if (settingsKey.isEmpty())
        return;
    QSettings settings;
    settings.beginGroup(SettingsGroup);
    settings.remove(settingsKey);
}

void TusUploaderPrivate::dropReply()
{
    if (stallTimer.isActive())
        stallTimer.stop();
    if (QNetworkReply* running = reply.data()) {
        reply = nullptr;
        QObject::disconnect(running, nullptr, q, nullptr);
        if (running->isRunning())
            running->abort();
        running->deleteLater();
    }
}
