// SPDX-License-Identifier: MIT
#include "tusuploader.h"

#include "journaller.h"
#include "variant.h"
#include "vxtypes.h"

#include <QBuffer>
#include <QFile>
#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QNetworkRequest>
#include <QTimer>
#include <QUrl>

#include <new>
#include <ostream>
#include <stdexcept>

namespace
{
const QByteArray TusVersion = QByteArrayLiteral("1.0.0");

int httpStatus(const QNetworkReply* reply)
{
    return reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
}
} // namespace

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
    , m_serverUrl(serverUrl)
{
    setChunkSize(0);
}

TusUploader::~TusUploader()
{
    veltrax::Lock lock(m_mutex);
    // The shared access manager outlives us: stop our request. A reply that has already
    // failed or finished (we may be deleted from a slot of its signals) is only let go.
    if (QNetworkReply* reply = m_reply.data()) {
        disconnect(reply, nullptr, this, nullptr);
        if (reply->isRunning() && reply->error() == QNetworkReply::NoError)
            reply->abort();
        reply->deleteLater();
    }
    delete m_file;
}

QNetworkRequest& TusUploader::prepareRequest(QNetworkRequest& request)
{
    return request;
}

void TusUploader::setChunkSize(qint64 size)
{
    m_chunkSize.store(size < 1 ? DefaultChunkSize : size);
}

qint64 TusUploader::chunkSize() const
{
    return m_chunkSize.load();
}

void TusUploader::setAuthentication(const QString& bearerToken, const QString& subscriptionKey)
{
    veltrax::Lock lock(m_mutex);
    m_bearerToken = bearerToken;
    m_subscriptionKey = subscriptionKey;
}

void TusUploader::setDeleteOnFinished(bool deleteOnFinished)
{
    veltrax::Lock lock(m_mutex);
    m_deleteOnFinished = deleteOnFinished;
}

bool TusUploader::startUploadFile(const QString& filePath, const QString& metaData)
{
    veltrax::Lock lock(m_mutex);
    const QFileInfo info(filePath);
    if (!info.isFile()) {
        JERROR("no such file: " << filePath);
        m_state = TusState::Error;
        return false;
    }
    if (m_state == TusState::Start || m_state == TusState::Patch) {
        JALERT("refused " << filePath << ": still uploading " << m_filePath);
        return false;
    }

    closeFile();
    m_filePath = filePath;
    m_metaData = metaData;
    m_uploadUrl.clear();
    m_location.clear();
    m_offset = 0;
    m_currentChunkLength = 0;
    m_fileSize = info.size();
    JDEBUG(filePath << " (" << m_fileSize << " bytes) to " << m_serverUrl);
    sendStart();
    return true;
}

TusState TusUploader::getState() const
{
    veltrax::Lock lock(m_mutex);
    return m_state;
}

QString TusUploader::serverFilePath() const
{
    veltrax::Lock lock(m_mutex);
    return m_uploadUrl;
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
    veltrax::Lock lock(m_mutex);
    if (!m_subscriptionKey.isEmpty())
        request.setRawHeader(QByteArrayLiteral("Ocp-Apim-Subscription-Key"), m_subscriptionKey.toUtf8());
    if (!m_bearerToken.isEmpty())
        request.setRawHeader(QByteArrayLiteral("Authorization"), QByteArrayLiteral("Bearer ") + m_bearerToken.toUtf8());
}

void TusUploader::breakRequest(QNetworkRequest& request)
{
    request.setUrl(QUrl(QStringLiteral("http://localhost/does/not/exist")));
}

void TusUploader::sendStart()
{
    veltrax::Lock lock(m_mutex);
    m_state = TusState::Start;

    QNetworkRequest request {QUrl(m_serverUrl)};
    request.setRawHeader(QByteArrayLiteral("Tus-Resumable"), TusVersion);
    if (!m_metaData.isEmpty())
        request.setRawHeader(QByteArrayLiteral("Upload-Metadata"), m_metaData.toUtf8());
    fillAuthentication(request);
    request.setRawHeader(QByteArrayLiteral("Upload-Length"), QByteArray::number(m_fileSize));

    prepareRequest(request);
    QNetworkReply* reply = m_netManager->post(request, QByteArray());
    m_reply = reply;
    connect(reply, &QNetworkReply::finished, this, &TusUploader::onCreateFinished);
    connect(reply, &QNetworkReply::errorOccurred, this, &TusUploader::onNetworkError);
}

void TusUploader::onCreateFinished()
{
    veltrax::Lock lock(m_mutex);
    QNetworkReply* reply = takeFinishedReply(201, __func__, QStringLiteral("creation of %1").arg(m_filePath));
    if (!reply)
        return;

    m_location = reply->rawHeader(QByteArrayLiteral("Location"));
    if (m_location.isEmpty()) {
        fail(lock, tr("The server created the upload but did not say where it is."));
        return;
    }
    // "//host/path" lacks only the scheme; the server URL's is the one meant. Only the
    // first character is looked at: a path-relative "/path" is not supported.
    QByteArray location = m_location;
    if (location.startsWith('/'))
        location.prepend(m_serverUrl.section(QLatin1Char(':'), 0, 0).toUtf8() + ':');
    m_uploadUrl = QString::fromUtf8(location);
    JDEBUG(m_filePath << " goes to " << m_uploadUrl);

    if (m_fileSize == 0) {
        // Nothing to send: an empty PATCH would only restate what the creation said.
        finish(lock);
        return;
    }

    closeFile();
    m_file = new QFile(m_filePath);
    if (!m_file->open(QIODevice::ReadOnly)) {
        fail(lock, tr("Cannot open %1: %2").arg(m_filePath, m_file->errorString()));
        return;
    }
    const QString failure = patchNextChunk();
    if (!failure.isEmpty())
        fail(lock, failure);
}

void TusUploader::sendPatch()
{
    veltrax::Lock lock(m_mutex);
    const QString failure = patchNextChunk();
    if (!failure.isEmpty())
        fail(lock, failure);
}

QString TusUploader::patchNextChunk()
{
    veltrax::Lock lock(m_mutex);
    if (!m_file)
        return tr("%1 is not open").arg(m_filePath);
    m_currentChunkLength = qMin(qMin(m_chunkSize.load(), MaximumChunkBody), m_fileSize - m_offset);

    QNetworkRequest request {QUrl(m_uploadUrl)};
    request.setRawHeader(QByteArrayLiteral("Tus-Resumable"), TusVersion);
    request.setRawHeader(QByteArrayLiteral("Connection"), QByteArrayLiteral("keep-alive"));
    request.setRawHeader(QByteArrayLiteral("Upload-Offset"), QByteArray::number(m_offset));
    request.setRawHeader(QByteArrayLiteral("Content-Length"), QByteArray::number(m_currentChunkLength));
    request.setRawHeader(QByteArrayLiteral("Content-Type"), QByteArrayLiteral("application/offset+octet-stream"));
    fillAuthentication(request);

    // Touching a mapped page beyond the end of the file is a SIGBUS, so a file that shrank
    // since the start is refused here. (One truncated by another process during the copy
    // below is beyond what a read-only mapping can guard against.)
    const qint64 sizeNow = m_file->size();
    if (sizeNow < m_offset + m_currentChunkLength)
        return tr("%1 shrank to %2 bytes during the upload").arg(m_filePath).arg(sizeNow);

    // Mapping reads only the pages of this chunk; the one copy into the body lets the
    // mapping go right after hand-over while Qt sends at its own pace.
    uchar* mapped = m_file->map(m_offset, m_currentChunkLength);
    if (!mapped)
        return tr("Cannot read %1 at %2: %3").arg(m_filePath).arg(m_offset).arg(m_file->errorString());
    auto* body = new QBuffer();
    try {
        body->setData(QByteArray(reinterpret_cast<const char*>(mapped), int(m_currentChunkLength)));
    } catch (const std::bad_alloc&) {
        delete body;
        m_file->unmap(mapped);
        return tr("Not enough memory for a chunk of %1 bytes").arg(m_currentChunkLength);
    }
    // Qt reads a QBuffer body straight from its byte array; the buffer is never opened.
    body->close();

    m_state = TusState::Patch;
    m_chunkStartTime = VxTime_timeStampNow();

    prepareRequest(request);
    QNetworkReply* reply = m_netManager->sendCustomRequest(request, QByteArrayLiteral("PATCH"), body);
    m_file->unmap(mapped);
    body->setParent(reply);
    m_reply = reply;
    connect(reply, &QNetworkReply::finished, this, &TusUploader::onPatchFinished);
    connect(reply, &QNetworkReply::errorOccurred, this, &TusUploader::onNetworkError);
    connect(reply, &QNetworkReply::uploadProgress, this, &TusUploader::onProgress);
    return QString();
}

void TusUploader::onPatchFinished()
{
    veltrax::Lock lock(m_mutex);
    if (!takeFinishedReply(204, __func__, QStringLiteral("chunk at %1 of %2").arg(m_offset).arg(m_filePath)))
        return;

    m_offset += m_currentChunkLength;
    if (m_offset < m_fileSize) {
        // Queued behind the reply's deferred deletion, so that the body just sent is freed
        // before the next chunk is read.
        QMetaObject::invokeMethod(this, &TusUploader::sendPatch, Qt::QueuedConnection);
        return;
    }

    finish(lock);
}

void TusUploader::onNetworkError(QNetworkReply::NetworkError code)
{
    auto* reply = qobject_cast<QNetworkReply*>(sender());
    if (!reply)
        return;
    reply->deleteLater();

    veltrax::Lock lock(m_mutex);
    if (reply != m_reply)
        return;

    const int status = httpStatus(reply);
    if (status != 0) {
        JERROR("server answered " << status);
        fail(lock, reply->errorString());
        return;
    }

    JALERT(m_filePath << ": network error " << int(code) << " (" << reply->errorString() << ") in state " << int(m_state) << ", resending in " << m_retryDelay
                      << " ms");
    if (m_state == TusState::Start)
        QTimer::singleShot(int(m_retryDelay), this, &TusUploader::sendStart);
    else if (m_state == TusState::Patch)
        QTimer::singleShot(int(m_retryDelay), this, &TusUploader::sendPatch);
}

void TusUploader::onProgress(qint64 bytesSent, qint64 bytesTotal)
{
    veltrax::Lock lock(m_mutex);
    if (sender() != m_reply)
        return;
    // Qt closes every upload with a (0, 0) report; passed on, it would set the progress
    // back to the start of the chunk just completed.
    if (bytesSent == 0 && bytesTotal == 0 && m_currentChunkLength > 0)
        return;
    const qint64 actualSent = bytesSent + m_offset;
    const int percent = m_fileSize > 0 ? int(actualSent * 100 / m_fileSize) : 100;
    const qint64 elapsed = qMax<qint64>(1, VxTime_timeStampNow() - m_chunkStartTime);
    const qint64 bytesPerSecond = actualSent * 1000 / elapsed;
    const QString filePath = m_filePath;
    lock.unlock();

    Q_EMIT uploadProgress(filePath, bytesTotal, actualSent, percent, bytesPerSecond);
}

QNetworkReply* TusUploader::takeFinishedReply(int expectedStatus, const char* caller, const QString& step)
{
    auto* reply = qobject_cast<QNetworkReply*>(sender());
    if (!reply)
        return nullptr;
    reply->deleteLater();
    if (reply != m_reply)
        return nullptr; // a request of an earlier upload
    m_reply = nullptr;

    const int status = httpStatus(reply);
    if (status == expectedStatus)
        return reply;
    // Failures are onNetworkError()'s to handle; an unexpected success status waits.
    if (reply->error() == QNetworkReply::NoError)
        JLOG_TO(gJournal, caller, JLL_ALERT, step << " answered " << status << ", not " << expectedStatus << "; waiting");
    return nullptr;
}

void TusUploader::finish(veltrax::Lock& lock)
{
    JDEBUG(m_filePath << " complete, " << m_fileSize << " bytes");
    end(lock, TusState::Finish, QString());
}

void TusUploader::fail(veltrax::Lock& lock, const QString& reason)
{
    JERROR(m_filePath << ": " << reason);
    end(lock, TusState::Error, reason);
}

void TusUploader::end(veltrax::Lock& lock, TusState state, const QString& reason)
{
    // Callers are slots entered from the event loop, so this lock is the only hold.
    Q_ASSERT(m_mutex.recursionCount() == 1);
    m_state = state;
    closeFile();
    const QString filePath = m_filePath;
    const bool deleteSelf = m_deleteOnFinished;
    lock.unlock();

    // A slot may delete us.
    QPointer<TusUploader> self(this);
    if (state == TusState::Finish)
        Q_EMIT uploadFinished(filePath);
    else
        Q_EMIT uploadFailed(filePath, reason);
    if (self && deleteSelf)
        deleteLater();
}

void TusUploader::closeFile()
{
    if (m_file) {
        m_file->close();
        m_file->deleteLater();
        m_file = nullptr;
    }
}
