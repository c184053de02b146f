// SPDX-License-Identifier: MIT
#include "autoupdate.h"

#include "autoupdate_p.h"
#include "downloadfile_p.h"
#include "journaller.h"
#include "minisign_p.h"

#include <QFile>
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
#include <climits>
#include <cmath>
#include <cstring>
#include <memory>

namespace
{
const QString kFirmwareGroup = QStringLiteral("firmwareVersions");

// The server's labels are "v" + numbers joined by underscores; users see them dotted.
// No check of the form is made: every label the server sends is shown this way.
QString toPublicVersion(const QString& label)
{
    return label.mid(1).replace(QLatin1Char('_'), QLatin1Char('.'));
}

QString settingText(const veltrax::SettingsFile& tree, const std::string& label)
{
    return QString::fromStdString(tree.settingThrow(label).toStdString());
}

const qint64 kDayMs = 24 * 3600 * 1000LL;
// The longest the check timer sleeps: the interval may change, and the clock may jump.
const qint64 kLongestWaitMs = 3600 * 1000LL;

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

bool isSha256Hex(const QByteArray& text)
{
    if (text.size() != 64)
        return false;
    return std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
    });
}

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

// One installer download from updateToVersion() to installerSaved() or downloadFailed().
struct InstallerDownload {
    AutoUpdate::Version version;
    QUrl url;
    QNetworkReply* signatureReply = nullptr;
    // Declared in the order they need each other: the file feeds the digest, the digest the verifier.
    std::unique_ptr<minisign::Verifier> verifier;
    std::unique_ptr<DownloadDigest> digest;
    std::unique_ptr<DownloadFile> file;
    QTimer retryTimer;
    int retriesDone = 0;
    // Bytes in the file before the current response started.
    qint64 offset = 0;
    // What the current response is to deliver; -1 when unknown.
    qint64 expected = -1;
    bool responseChecked = false;
    bool responseWritten = false;
    // ETag or Last-Modified of the first answer, sent as If-Range when resuming.
    QByteArray validator;
    // Set when we stop the transfer ourselves; an abort without it is the user's.
    QString failure;
    bool showFailure = false;
};

using autoupdate_p::compareVersions;

class AutoUpdatePrivate
{
public:
    explicit AutoUpdatePrivate(AutoUpdatable* host)
        : host(host)
    {
    }

    void saveDownload(QNetworkReply* reply);
    void showFailure(const QString& text) const;

    void fetchSignature();
    void signatureFinished(QNetworkReply* reply);
    void sendInstallerRequest();
    void receive();
    bool scheduleRetry();
    void retry();
    void closeProgressDialog();
    void endDownload(const QString& savedPath, const QString& failure, bool showBox = false);
    void failVerification(const QString& why);
    void abandonDownload(const QString& why);

    AutoUpdate* q = nullptr;
    static AutoUpdatePrivate* get(const AutoUpdate& q) { return q.d.get(); }
    QDateTime now() const { return clock ? clock() : QDateTime::currentDateTimeUtc(); }
    void decideAutomaticCheck(AutoUpdate* q);
    void automaticCheckAnswered(AutoUpdate* q);

    AutoUpdatable* const host;
    veltrax::NetManager netManager;
    QProgressDialog* progressDialog = nullptr;
    QNetworkReply* reply = nullptr;
    bool allowMessageBoxes = false;
    UpdateServerComm* comm = nullptr;
    Journaller* journaller = nullptr;
    QList<AutoUpdate::Version> versions;
    QList<VxString> firmwareKeys;

    QVector<minisign::PublicKey> trustedKeys;
    // Set by any key given, valid or not: a mistyped key must not switch the check off.
    bool requireSignature = false;
    QString downloadFolder;
    int downloadRetries = 0;
    std::unique_ptr<InstallerDownload> download;
    // Automatic checks.
    QTimer checkTimer;
    QDateTime (*clock)() = nullptr;
    bool automaticChecks = false;
    bool automaticCheckRunning = false;
    // Attempts count, failed ones too: an unreachable server is not asked again within the interval.
    QDateTime lastAttempt;
    bool lastListAccepted = false;
};

void autoupdate_p::setClock(AutoUpdate& autoUpdate, QDateTime (*clock)())
{
    AutoUpdatePrivate::get(autoUpdate)->clock = clock;
}

void autoupdate_p::decideAutomaticCheck(AutoUpdate& autoUpdate)
{
    AutoUpdatePrivate::get(autoUpdate)->decideAutomaticCheck(&autoUpdate);
}

int autoupdate_p::msecsToNextDecision(const AutoUpdate& autoUpdate)
{
    const QTimer& timer = AutoUpdatePrivate::get(autoUpdate)->checkTimer;
    return timer.isActive() ? timer.interval() : -1;
}

void AutoUpdatePrivate::decideAutomaticCheck(AutoUpdate* q)
{
    checkTimer.stop();
    if (!automaticChecks)
        return;

    const QDateTime current = now();
    const qint64 interval = qint64(qMax(0, host->updateCheckInterval())) * kDayMs;
    qint64 wait = kLongestWaitMs;
    if (interval > 0 && !automaticCheckRunning) {
        QSettings settings;
        settings.beginGroup(autoupdate_p::updateCheckGroup());
        const QDateTime lastCheck = QDateTime::fromString(settings.value(autoupdate_p::lastCheckKey()).toString(), Qt::ISODate);
        settings.endGroup();
        // A moment in the future comes from a clock that was wrong then or is wrong now:
        // trusting it could postpone checks for years, so it counts as long ago.
        auto leftAfter = [&](const QDateTime& moment) {
            return moment.isValid() && moment <= current ? interval - moment.msecsTo(current) : qint64(0);
        };
        const qint64 left = qMax(leftAfter(lastCheck), leftAfter(lastAttempt));
        if (left <= 0) {
            lastAttempt = current;
            automaticCheckRunning = true;
            auto* request = new ServerListRequest(*comm, host->productName(), QString(), q);
            QObject::connect(request, &ServerRequest::reply, q, &AutoUpdate::handleListReply);
            // Connected second, so it runs after the list was taken over.
            QObject::connect(request, &ServerRequest::reply, q, [this, q] {
                automaticCheckAnswered(q);
            });
            request->start(QThread::InheritPriority);
            wait = qMin(interval, kLongestWaitMs);
        } else {
            wait = qMin(left, kLongestWaitMs);
        }
    }
    checkTimer.start(int(wait));
}

void AutoUpdatePrivate::automaticCheckAnswered(AutoUpdate* q)
{
    automaticCheckRunning = false;
    if (!lastListAccepted)
        return;
    QSettings settings;
    settings.beginGroup(autoupdate_p::updateCheckGroup());
    settings.setValue(autoupdate_p::lastCheckKey(), now().toUTC().toString(Qt::ISODate));
    const QString skipped = settings.value(autoupdate_p::skippedVersionKey()).toString();
    settings.endGroup();

    if (!q->isNewVersionAvailable())
        return;
    const AutoUpdate::Version newest = q->newestVersion();
    if (newest.internalVersion.isEmpty())
        return;
    if (!skipped.isEmpty()) {
        const VxVersion skippedVersion = AutoUpdate::fromInternalVersion(skipped);
        const bool readable = compareVersions(skippedVersion, VxVersion()) != 0;
        if (newest.internalVersion == skipped || (readable && compareVersions(AutoUpdate::fromInternalVersion(newest.internalVersion), skippedVersion) <= 0))
            return;
    }
    Q_EMIT q->newVersionAvailable(newest);
}

AutoUpdatable::~AutoUpdatable() = default;

void AutoUpdatable::reserved1()
{
}

void AutoUpdatable::reserved2()
{
}

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

AutoUpdate::AutoUpdate(AutoUpdatable* host, QObject* parent)
    : QObject(parent)
    , d(new AutoUpdatePrivate(host))
{
    d->q = this;
    d->comm = new UpdateServerComm(this, host->updateServerOptions());
    d->journaller = d->host->journaller();
    connect(d->netManager.qman(), &QNetworkAccessManager::finished, this, &AutoUpdate::replyFinished);
    d->checkTimer.setSingleShot(true);
    connect(&d->checkTimer, &QTimer::timeout, this, [this] {
        d->decideAutomaticCheck(this);
    });
}

AutoUpdate::~AutoUpdate()
{
    // Nobody is left to report to.
    d->abandonDownload(QString());
    delete d->progressDialog;
    d->progressDialog = nullptr;

    // Request threads are our children; they must have ended before QObject deletes them.
    d->comm->terminate();
    const QList<ServerRequest*> requests = findChildren<ServerRequest*>(QString(), Qt::FindDirectChildrenOnly);
    for (ServerRequest* request : requests)
        request->wait();
}

QList<AutoUpdate::Version> AutoUpdate::versions() const
{
    return d->versions;
}

QString AutoUpdate::toInternalVersion(const VxVersion& version)
{
    return QStringLiteral("v%1_%2_%3").arg(version.major()).arg(version.minor()).arg(version.revision());
}

VxVersion AutoUpdate::fromInternalVersion(const QString& label)
{
    QRegExp pattern(QStringLiteral("^v(\\d+)_(\\d+)_(\\d+)$"), Qt::CaseSensitive, QRegExp::RegExp);
    if (!pattern.exactMatch(label))
        return VxVersion();
    // Like Qt's own conversion, a number beyond 32 bits reads as 0.
    return VxVersion(pattern.cap(1).toInt(), pattern.cap(2).toInt(), pattern.cap(3).toInt());
}

bool AutoUpdate::displayLessThan(const Version& a, const Version& b)
{
    return compareVersions(fromInternalVersion(a.internalVersion), fromInternalVersion(b.internalVersion)) < 0;
}

void AutoUpdate::refresh()
{
    auto* request = new ServerListRequest(*d->comm, d->host->productName(), QString(), this);
    connect(request, &ServerRequest::reply, this, &AutoUpdate::handleListReply);
    request->start(QThread::InheritPriority);
}

void AutoUpdate::handleListReply(const veltrax::SettingsFile& settings)
{
    d->versions.clear();
    d->lastListAccepted = false;
    if (settings.empty() || !settings.subTree(updateserver::ERROR_SECTION).empty()) {
        const veltrax::Variant message = settings.subTree(updateserver::ERROR_SECTION).setting(updateserver::ERROR_MESSAGE_SETTING);
        QString reason = QStringLiteral("empty reply");
        if (!message.empty())
            reason = QString::fromStdString(message.toStdString());
        Q_EMIT versionCheckFailed(reason);
        Q_EMIT failedToGetVersions();
        return;
    }

    const veltrax::SettingsFile& product = settings.subTree(d->host->productName().toStdString());
    const veltrax::LabelList labels = product.subTrees(true);
    size_t listed = 0;
    for (const veltrax::Label& label : labels) {
        ++listed;
        const std::string name = label.toStdString();
        try {
            Version version;
            version.internalVersion = QString::fromStdString(name);
            version.publicVersion = toPublicVersion(version.internalVersion);
            const int64_t seconds = product.settingThrow(name + ".date").toInt64();
            // The server sends seconds; a value whose milliseconds do not fit is as bad as a missing one.
            if (seconds > INT64_MAX / 1000 || seconds < INT64_MIN / 1000)
                throw VxException(VXRV_DATAOVERFLOW, "Release date out of range");
            version.date = seconds * 1000;
            version.url = settingText(product, name + ".url");
            version.beta = product.settingThrow(name + ".beta").toBool();

            const QString type = QString::fromStdString(product.defaultSetting(name + ".releasetype", veltrax::Variant(std::string())).toStdString());
            if (type.isEmpty())
                version.releaseType = version.beta ? tr("Beta") : tr("Stable");
            else if (type == QLatin1String("Patch"))
                version.releaseType = tr("Patch");
            else
                version.releaseType = type;

            const veltrax::Variant infoLabel = product.setting(name + ".infolabel");
            if (!infoLabel.empty())
                version.infoLabel = QString::fromStdString(infoLabel.toStdString());
            const veltrax::Variant infoUrl = product.setting(name + ".infourl");
            if (!infoUrl.empty())
                version.infoUrl = QString::fromStdString(infoUrl.toStdString());
            const veltrax::Variant size = product.setting(name + ".size");
            if (!size.empty()) {
                // Strictly a number of bytes: "12kB" is not read as 12.
                bool ok = false;
                version.size = QString::fromStdString(size.toStdString()).toLongLong(&ok);
                if (!ok || version.size < 0)
                    throw VxException(VXRV_INVALIDPARAM, "The size setting is not a number of bytes");
            }
            const veltrax::Variant sha256 = product.setting(name + ".sha256");
            if (!sha256.empty()) {
                version.sha256 = QByteArray::fromStdString(sha256.toStdString()).toLower();
                if (!isSha256Hex(version.sha256))
                    throw VxException(VXRV_INVALIDPARAM, "The sha256 setting is not 64 hex digits");
            }
            const veltrax::Variant signatureUrl = product.setting(name + ".signatureurl");
            if (!signatureUrl.empty())
                version.signatureUrl = QString::fromStdString(signatureUrl.toStdString());
            d->versions.append(version);
        } catch (const std::exception& e) {
            JLOG_TO(d->journaller, "handleListReply", JLL_ERROR, std::string("Error while parsing reply: ") + e.what());
        }
    }

    // An empty product subtree is a valid answer: the product simply has no releases yet.
    if (!d->versions.isEmpty() || listed == 0) {
        std::sort(d->versions.begin(), d->versions.end());
        d->lastListAccepted = true;
        Q_EMIT versionsUpdated();
    } else {
        Q_EMIT versionCheckFailed(QStringLiteral("no readable release"));
        Q_EMIT failedToGetVersions();
    }
}

bool AutoUpdate::isNewVersionAvailable() const
{
    const VxVersion current = d->host->currentVersion();
    bool newerStable = false;
    bool newerBeta = false;
    for (const Version& version : d->versions) {
        const VxVersion offered = VxVersion::fromString(version.publicVersion.toStdString());
        if (compareVersions(offered, current) > 0) {
            if (version.beta)
                newerBeta = true;
            else
                newerStable = true;
        }
    }

    QSettings settings;
    settings.beginGroup(autoupdate_p::updateCheckGroup());
    const bool acceptBeta = settings.value(autoupdate_p::acceptBetaKey(), false).toBool();
    settings.setValue(autoupdate_p::acceptBetaKey(), acceptBeta);
    settings.endGroup();

    return newerStable || (acceptBeta && newerBeta);
}

AutoUpdate::Version AutoUpdate::newestVersion() const
{
    QSettings settings;
    settings.beginGroup(autoupdate_p::updateCheckGroup());
    const bool acceptBeta = settings.value(autoupdate_p::acceptBetaKey(), false).toBool();
    settings.endGroup();

    Version newest;
    for (const Version& version : d->versions) {
        if (version.beta && !acceptBeta)
            continue;
        if (newest.internalVersion.isEmpty() || displayLessThan(newest, version))
            newest = version;
    }
    return newest;
}

void AutoUpdate::startAutomaticChecks()
{
    d->automaticChecks = true;
    d->decideAutomaticCheck(this);
}

void AutoUpdate::stopAutomaticChecks()
{
    d->automaticChecks = false;
    d->checkTimer.stop();
}

void AutoUpdate::skipVersion(const QString& internalVersion)
{
    QSettings settings;
    settings.beginGroup(autoupdate_p::updateCheckGroup());
    if (internalVersion.isEmpty())
        settings.remove(autoupdate_p::skippedVersionKey());
    else
        settings.setValue(autoupdate_p::skippedVersionKey(), internalVersion);
}

void AutoUpdate::requestFirmwareVersion(const VxDeviceId& id)
{
    ServerRequest* request = nullptr;
    VxString key;
    if (id.isLegacyDeviceId()) {
        request = new ServerListRequest(*d->comm,
            updateserver::legacyDeviceString(id, QString(), QString()),
            updateserver::legacyDeviceString(id.deviceTypeMask(true), QString(), QString()),
            this);
        key = id.deviceType(true).toString();
    } else {
        request = new ServerList2Request(*d->comm,
            updateserver::modernDeviceString(id, QString(), QString()),
            updateserver::modernDeviceString(id.deviceTypeMask(true), QString(), QString()),
            this);
        key = id.toDeviceTypeString(true);
    }
    if (!d->firmwareKeys.contains(key))
        d->firmwareKeys.append(key);
    connect(request, &ServerRequest::reply, this, &AutoUpdate::handleFirmwareListReply);
    request->start(QThread::InheritPriority);
}

QStringList AutoUpdate::firmwareKeys() const
{
    QStringList keys;
    for (const VxString& key : d->firmwareKeys)
        keys.append(QString::fromStdString(key.toStdString()));
    return keys;
}

void AutoUpdate::handleFirmwareListReply(const veltrax::SettingsFile& settings)
{
    if (settings.empty() || !settings.subTree(updateserver::ERROR_SECTION).empty())
        return;

    const veltrax::SettingsFile& firmware = settings.subTree("firmware");
    QSettings store;
    store.beginGroup(kFirmwareGroup);
    for (const VxString& key : qAsConst(d->firmwareKeys)) {
        try {
            // subTree() of a missing label is the shared empty tree.
            const veltrax::SettingsFile& device = firmware.subTree(key.toStdString());
            if (!device.hasSetting("versions"))
                continue;
            const veltrax::LabelList versions = device.setting("versions").toLabelList();
            if (versions.empty())
                continue;
            // The first label in ascending label order (byte order, as strcmp has it) is the
            // one stored, whatever its number: v1_0_10 comes before v1_0_3.
            const veltrax::Label* first = std::min_element(versions.begin(), versions.end(), [](const veltrax::Label& a, const veltrax::Label& b) {
                return std::strcmp(a.c_str(), b.c_str()) < 0;
            });
            store.setValue(QString::fromStdString(key.toStdString()), toPublicVersion(QString::fromStdString(first->toStdString())));
        } catch (const std::exception& e) {
            JLOG_TO(d->journaller, "handleFirmwareListReply", JLL_ERROR, std::string("Error while parsing reply: ") + e.what());
        }
    }
    store.endGroup();
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

void AutoUpdate::setAllowMessageBoxes(bool allow)
{
    d->allowMessageBoxes = allow;
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

QString AutoUpdate::serverString() const
{
    return d->comm->serverString();
}

void AutoUpdate::terminate()
{
    d->comm->terminate();
    VxTime_msleep(120);
}
