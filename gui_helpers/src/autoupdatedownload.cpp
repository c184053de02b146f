// SPDX-License-Identifier: MIT
//
// The installer download of the update controller: signature fetch, streaming to a
// temporary file with size, hash and signature checks, resume after a dropped connection,
// and the atomic save into the chosen folder.
#include "autoupdate.h"

#include "autoupdate_p.h"
#include "downloadfile_p.h"
#include "journaller.h"
#include "minisign_p.h"

#include <QFileDialog>
#include <QFileInfo>
#include <QMessageBox>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QProgressDialog>
#include <QRegExp>
#include <QSettings>
#include <QTimer>
#include <QUrl>

#include <algorithm>
#include <cmath>

namespace
{
// Qt turns HTTP error statuses into network errors of these two ranges; a reply that
// carries one of them still got an answer from the server.
bool isHttpStatusError(QNetworkReply::NetworkError error)
{
    return (error >= QNetworkReply::ContentAccessDenied && error <= QNetworkReply::UnknownContentError)
        || (error >= QNetworkReply::InternalServerError && error <= QNetworkReply::UnknownServerError);
}

// Enough to keep the disk busy; small enough that a fast server cannot fill memory.
constexpr qint64 DownloadReadBuffer = 4 * 1024 * 1024;
constexpr int MaximumRetryDelaySeconds = 30;

// "bytes 100-199/1000" -> first byte, last byte and total (-1 when "*").
bool parseContentRange(const QByteArray& header, qint64* first, qint64* last, qint64* total)
{
    QRegExp pattern(QStringLiteral("^bytes (\\d+)-(\\d+)/(\\d+|\\*)$"));
    if (!pattern.exactMatch(QString::fromLatin1(header.trimmed())))
        return false;
    bool ok1 = false;
    bool ok2 = false;
    bool ok3 = true;
    *first = pattern.cap(1).toLongLong(&ok1);
    *last = pattern.cap(2).toLongLong(&ok2);
    *total = pattern.cap(3) == QLatin1String("*") ? -1 : pattern.cap(3).toLongLong(&ok3);
    return ok1 && ok2 && ok3 && *first <= *last && (*total < 0 || *last < *total);
}
} // namespace

void AutoUpdatePrivate::saveDownload(QNetworkReply* reply)
{
    InstallerDownload& dl = *download;
    // The name is the server's choice: only a plain name, directly inside the folder.
    const QUrl url = reply->request().url();
    const QString fileName = safeDownloadFileName(url);

    const QString mismatch = dl.digest->check(dl.version.size, dl.version.sha256);
    if (!mismatch.isEmpty())
        return failVerification(mismatch);
    QString signer;
    if (dl.verifier) {
        const QString why = dl.verifier->verify(fileName, dl.file->temporaryPath());
        if (!why.isEmpty())
            return failVerification(why);
        signer = dl.verifier->keyIdText();
    }

    const QString folder = !downloadFolder.isEmpty()
        ? downloadFolder
        : QFileDialog::getExistingDirectory(nullptr, AutoUpdate::tr("Select download folder"), QString(), QFileDialog::ShowDirsOnly);
    if (folder.isEmpty())
        return endDownload(QString(), QStringLiteral("no download folder was chosen"));

    const QString path = downloadFilePath(folder, url);
    if (!dl.file->commit(path)) {
        JLOG_TO(journaller, "replyFinished", JLL_ERROR, dl.file->errorString().toStdString());
        return endDownload(QString(), dl.file->errorString());
    }
    if (!signer.isEmpty())
        JLOG_TO(journaller, "replyFinished", JLL_DEBUG, "Installer " + path.toStdString() + " verified, signed by key " + signer.toStdString());
    endDownload(path, QString());
}

void AutoUpdatePrivate::failVerification(const QString& why)
{
    JLOG_TO(journaller, "replyFinished", JLL_ERROR, "Refused " + download->url.toString().toStdString() + ": " + why.toStdString());
    endDownload(QString(), AutoUpdate::tr("The downloaded file could not be verified: %1").arg(why), true);
}

void AutoUpdatePrivate::closeProgressDialog()
{
    if (progressDialog) {
        // We may be inside the dialog's own canceled() signal: let it unwind first.
        progressDialog->hide();
        progressDialog->deleteLater();
        progressDialog = nullptr;
    }
}

void AutoUpdatePrivate::endDownload(const QString& savedPath, const QString& failure, bool showBox)
{
    // Gone before anyone hears of it: the box's event loop or a slot may start the next download.
    const std::unique_ptr<InstallerDownload> finished = std::move(download);
    closeProgressDialog();
    if (!finished)
        return;
    if (showBox)
        showFailure(failure);
    if (savedPath.isEmpty())
        Q_EMIT q->downloadFailed(failure);
    else
        Q_EMIT q->installerSaved(savedPath);
}

void AutoUpdatePrivate::abandonDownload(const QString& why)
{
    if (!download)
        return;
    if (QNetworkReply* signature = download->signatureReply) {
        download->signatureReply = nullptr;
        QObject::disconnect(signature, nullptr, q, nullptr);
        signature->abort();
        signature->deleteLater();
    }
    if (QNetworkReply* running = reply) {
        // Forget it first: aborting finishes it at once.
        reply = nullptr;
        running->abort();
        running->deleteLater();
    }
    if (why.isEmpty())
        download.reset();
    else
        endDownload(QString(), why);
}

void AutoUpdatePrivate::fetchSignature()
{
    InstallerDownload& dl = *download;
    const QUrl signatureUrl = dl.version.signatureUrl.isEmpty() ? QUrl(dl.version.url + QStringLiteral(".minisig")) : QUrl(dl.version.signatureUrl);
    QNetworkRequest request {signatureUrl};
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::NoLessSafeRedirectPolicy);
    dl.signatureReply = netManager->get(request);
    QNetworkReply* signature = dl.signatureReply;
    QObject::connect(signature, &QNetworkReply::finished, q, [this, signature] {
        signatureFinished(signature);
    });
}

void AutoUpdatePrivate::signatureFinished(QNetworkReply* signature)
{
    signature->deleteLater();
    if (!download || download->signatureReply != signature)
        return;
    download->signatureReply = nullptr;

    if (signature->error() == QNetworkReply::OperationCanceledError)
        return endDownload(QString(), QStringLiteral("the download was cancelled"));
    const int status = signature->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (signature->error() != QNetworkReply::NoError || status != 200)
        return failVerification(
            QStringLiteral("the signature file %1 could not be fetched (%2)").arg(signature->request().url().toString(), signature->errorString()));
    // A signature file is four short lines; anything large is not one.
    const QByteArray text = signature->read(64 * 1024);
    minisign::Signature parsed;
    const QString why = minisign::parseSignature(text, &parsed);
    if (!why.isEmpty())
        return failVerification(why);
    download->verifier = std::make_unique<minisign::Verifier>(trustedKeys, parsed);
    sendInstallerRequest();
}

void AutoUpdatePrivate::sendInstallerRequest()
{
    InstallerDownload& dl = *download;
    if (!dl.file) {
        dl.digest = std::make_unique<DownloadDigest>(dl.verifier.get(), !dl.version.sha256.isEmpty());
        dl.file = std::make_unique<DownloadFile>(dl.digest.get());
        if (!dl.file->open()) {
            JLOG_TO(journaller, "replyFinished", JLL_ERROR, dl.file->errorString().toStdString());
            return endDownload(QString(), dl.file->errorString());
        }
    }

    QNetworkRequest request {dl.url};
    // Download hosts commonly redirect to a mirror; never from https down to http.
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::NoLessSafeRedirectPolicy);
    dl.offset = dl.digest->size();
    if (dl.offset > 0) {
        request.setRawHeader("Range", "bytes=" + QByteArray::number(dl.offset) + '-');
        if (!dl.validator.isEmpty())
            request.setRawHeader("If-Range", dl.validator);
    }
    dl.expected = -1;
    dl.responseChecked = false;
    dl.responseWritten = false;
    reply = netManager->get(request);
    reply->setReadBufferSize(DownloadReadBuffer);
    // The slot is private to the class; the string form reaches it from here.
    QObject::connect(reply, SIGNAL(downloadProgress(qint64, qint64)), q, SLOT(updateDownloadProgress(qint64, qint64)));
    QObject::connect(reply, &QIODevice::readyRead, q, [this] {
        receive();
    });
}

void AutoUpdatePrivate::receive()
{
    if (!reply || !download || !download->failure.isEmpty())
        return;
    InstallerDownload& dl = *download;
    if (!dl.responseChecked) {
        const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        if (status == 0 || (status >= 300 && status < 400))
            return; // headers of the final answer not there yet
        dl.responseChecked = true;
        dl.responseWritten = status == 200 || (status == 206 && dl.offset > 0);
        const bool identity = reply->rawHeader("Content-Encoding").isEmpty();
        if (status == 200) {
            if (dl.offset > 0) {
                // The server sent the whole file (no Range support, or it changed): start over.
                JLOG_TO(journaller, "replyFinished", JLL_ALERT, "Server sent the whole file again; restarting the download");
                if (!dl.file->restart()) {
                    dl.failure = dl.file->errorString();
                    reply->abort();
                    return;
                }
                dl.offset = 0;
            }
            if (dl.validator.isEmpty())
                dl.validator = reply->hasRawHeader("ETag") ? reply->rawHeader("ETag") : reply->rawHeader("Last-Modified");
            const QVariant length = reply->header(QNetworkRequest::ContentLengthHeader);
            if (identity && length.isValid())
                dl.expected = length.toLongLong();
        } else if (dl.responseWritten) {
            qint64 first = 0;
            qint64 last = 0;
            qint64 total = 0;
            if (!parseContentRange(reply->rawHeader("Content-Range"), &first, &last, &total) || first != dl.offset) {
                dl.failure = AutoUpdate::tr("The server resumed the download at the wrong place");
                dl.showFailure = true;
                reply->abort();
                return;
            }
            dl.expected = last - first + 1;
        }
    }
    if (!dl.responseWritten) {
        reply->readAll(); // an error page: its text is not the installer
        return;
    }
    char buffer[256 * 1024];
    qint64 count = 0;
    while ((count = reply->read(buffer, sizeof buffer)) > 0) {
        if (!dl.file->write(buffer, count)) {
            JLOG_TO(journaller, "replyFinished", JLL_ERROR, dl.file->errorString().toStdString());
            dl.failure = dl.file->errorString();
            reply->abort();
            return;
        }
    }
}

bool AutoUpdatePrivate::scheduleRetry()
{
    InstallerDownload& dl = *download;
    if (dl.retriesDone >= downloadRetries)
        return false;
    const int delay = dl.retriesDone < 5 ? qMin(1 << dl.retriesDone, MaximumRetryDelaySeconds) : MaximumRetryDelaySeconds;
    ++dl.retriesDone;
    JLOG_TO(journaller,
        "replyFinished",
        JLL_ALERT,
        "Download interrupted after " + std::to_string(dl.digest->size()) + " bytes; resuming in " + std::to_string(delay) + " s");
    dl.retryTimer.start(delay * 1000);
    return true;
}

void AutoUpdatePrivate::retry()
{
    if (download && !reply)
        sendInstallerRequest();
}

void AutoUpdatePrivate::showFailure(const QString& text) const
{
    if (!allowMessageBoxes)
        return;
    QMessageBox box(QMessageBox::Critical, AutoUpdate::tr("Failed to download update"), text, QMessageBox::Cancel);
    box.setModal(true);
    box.exec();
}

bool AutoUpdate::updateToVersion(const QString& intName, AutoUpdatable* host)
{
    Q_UNUSED(host)
    Version pending;
    for (const Version& version : qAsConst(d->versions)) {
        if (version.internalVersion == intName) {
            pending = version;
            break;
        }
    }
    if (pending.internalVersion.isEmpty() || pending.url.isEmpty())
        return false;

    // Only one download is tracked; an earlier one ends unsaved.
    d->abandonDownload(QStringLiteral("another download was started"));
    delete d->progressDialog;

    d->progressDialog = new QProgressDialog(tr("Downloading update, this may take a few minutes"), tr("Cancel"), 0, 1000);
    d->progressDialog->setWindowFlags(d->progressDialog->windowFlags() & ~Qt::WindowContextHelpButtonHint);
    d->progressDialog->setModal(true);
    d->progressDialog->setValue(0);
    d->progressDialog->setMinimumDuration(200);
    connect(d->progressDialog, &QProgressDialog::canceled, this, &AutoUpdate::abortDownload);
    d->progressDialog->show();

    d->download = std::make_unique<InstallerDownload>();
    d->download->version = pending;
    d->download->url = QUrl(pending.url);
    d->download->retryTimer.setSingleShot(true);
    connect(&d->download->retryTimer, &QTimer::timeout, this, [this] {
        d->retry();
    });
    if (!d->requireSignature)
        d->sendInstallerRequest();
    else
        d->fetchSignature();
    return true;
}

void AutoUpdate::updateDownloadProgress(qint64 received, qint64 total)
{
    if (!d->progressDialog)
        return;
    // An unknown (-1) or zero total gives no usable fraction; the dialog ignores values out of range.
    // A resumed answer counts on from the bytes already in the file.
    const qint64 offset = d->download && d->download->responseWritten ? d->download->offset : 0;
    if (total >= 0)
        total += offset;
    received += offset;
    const double value = static_cast<double>(received) * 1000.0 / static_cast<double>(total);
    if (!std::isfinite(value) || value < INT_MIN || value > INT_MAX)
        return;
    d->progressDialog->setValue(static_cast<int>(std::round(value)));
}

void AutoUpdate::abortDownload()
{
    if (d->reply) {
        d->reply->abort();
    } else if (d->download && d->download->signatureReply) {
        d->download->signatureReply->abort();
    } else if (d->download && d->download->retryTimer.isActive()) {
        d->download->retryTimer.stop();
        d->endDownload(QString(), QStringLiteral("the download was cancelled"));
    }
}

void AutoUpdate::replyFinished(QNetworkReply* reply)
{
    // The network manager is shared: other replies are not ours to touch.
    if (!reply || reply != d->reply || !d->download)
        return;
    d->receive(); // whatever arrived with the end
    d->reply = nullptr;
    reply->deleteLater();
    InstallerDownload& dl = *d->download;

    const QNetworkReply::NetworkError error = reply->error();
    const QVariant statusAttribute = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    const int status = statusAttribute.toInt();
    const QString url = reply->request().url().toString();
    const bool httpAnswer = error == QNetworkReply::NoError || (statusAttribute.isValid() && isHttpStatusError(error));
    // Qt may end a cut-off answer without an error: fewer bytes than announced is a lost connection.
    const qint64 received = dl.digest->size() - dl.offset;
    const bool shortBody = httpAnswer && dl.responseWritten && dl.expected >= 0 && received < dl.expected;
    const bool transportFailure = dl.failure.isEmpty() && error != QNetworkReply::OperationCanceledError && (!httpAnswer || shortBody);

    if (transportFailure && d->scheduleRetry())
        return;
    d->closeProgressDialog();

    if (!dl.failure.isEmpty()) {
        d->endDownload(QString(), dl.failure, dl.showFailure);
    } else if (error == QNetworkReply::OperationCanceledError) {
        // The user cancelled: nothing to show.
        d->endDownload(QString(), QStringLiteral("the download was cancelled"));
    } else if (shortBody) {
        d->endDownload(QString(), tr("The connection closed after %1 of %2 bytes").arg(received).arg(dl.expected), true);
    } else if (httpAnswer && error == QNetworkReply::NoError && dl.responseWritten) {
        d->saveDownload(reply);
    } else if (httpAnswer && status == 404) {
        d->endDownload(QString(), tr("Update file not found at %1").arg(url), true);
    } else if (httpAnswer) {
        const QString reason = reply->attribute(QNetworkRequest::HttpReasonPhraseAttribute).toString();
        d->endDownload(QString(), tr("Server returned \"%1: %2\" when requesting file at %3").arg(status).arg(reason, url), true);
    } else {
        d->endDownload(QString(), reply->errorString(), true);
    }
}

void AutoUpdate::setTrustedUpdateKeys(const QStringList& publicKeys)
{
    d->trustedKeys.clear();
    d->requireSignature = !publicKeys.isEmpty();
    for (const QString& text : publicKeys) {
        minisign::PublicKey key;
        const QString why = minisign::parsePublicKey(text.toUtf8(), &key);
        if (why.isEmpty())
            d->trustedKeys.append(key);
        else
            JLOG_TO(d->journaller, "setTrustedUpdateKeys", JLL_ERROR, "Ignored update key: " + why.toStdString());
    }
}

void AutoUpdate::setDownloadFolder(const QString& folder)
{
    d->downloadFolder = folder;
}

void AutoUpdate::setDownloadRetries(int count)
{
    d->downloadRetries = qMax(0, count);
}
