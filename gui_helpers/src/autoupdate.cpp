// SPDX-License-Identifier: MIT
#include "autoupdate.h"

#include "autoupdate_p.h"
#include "journaller.h"

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
} // namespace

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
    const QByteArray data = reply->readAll();
    // Only the last path component: a percent-encoded slash must not lead out of the folder.
    const QString fileName = QFileInfo(reply->request().url().path(QUrl::FullyDecoded)).fileName();
    const QString folder = QFileDialog::getExistingDirectory(nullptr, AutoUpdate::tr("Select download folder"), QString(), QFileDialog::ShowDirsOnly);
    if (folder.isEmpty())
        return;

    const QString path = folder + QLatin1Char('/') + fileName;
    QFile file(path);
    if (fileName.isEmpty() || !file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        JLOG_TO(journaller, "replyFinished", JLL_ERROR, "Failed to create file " + path.toStdString());
        return;
    }
    if (file.write(data) != data.size() || !file.flush())
        JLOG_TO(journaller, "replyFinished", JLL_ERROR, "Failed to write file " + path.toStdString());
    file.close();
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
    if (QNetworkReply* reply = d->reply) {
        // Forget it first: aborting finishes it at once, and nobody is left to report to.
        d->reply = nullptr;
        reply->abort();
        reply->deleteLater();
    }
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

    // Only one download is tracked; an earlier one runs on unobserved and cleans up after itself.
    if (d->reply) {
        connect(d->reply, &QNetworkReply::finished, d->reply, &QObject::deleteLater);
        d->reply = nullptr;
    }
    delete d->progressDialog;

    d->progressDialog = new QProgressDialog(tr("Downloading update, this may take a few minutes"), tr("Cancel"), 0, 1000);
    d->progressDialog->setWindowFlags(d->progressDialog->windowFlags() & ~Qt::WindowContextHelpButtonHint);
    d->progressDialog->setModal(true);
    d->progressDialog->setValue(0);
    d->progressDialog->setMinimumDuration(200);
    connect(d->progressDialog, &QProgressDialog::canceled, this, &AutoUpdate::abortDownload);
    d->progressDialog->show();

    QNetworkRequest request {QUrl(pending.url)};
    // Download hosts commonly redirect to a mirror; never from https down to http.
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::NoLessSafeRedirectPolicy);
    d->reply = d->netManager->get(request);
    d->reply->setReadBufferSize(0);
    connect(d->reply, &QNetworkReply::downloadProgress, this, &AutoUpdate::updateDownloadProgress);
    return true;
}

void AutoUpdate::updateDownloadProgress(qint64 received, qint64 total)
{
    if (!d->progressDialog)
        return;
    // An unknown (-1) or zero total gives no usable fraction; the dialog ignores values out of range.
    const double value = static_cast<double>(received) * 1000.0 / static_cast<double>(total);
    if (!std::isfinite(value) || value < INT_MIN || value > INT_MAX)
        return;
    d->progressDialog->setValue(static_cast<int>(std::round(value)));
}

void AutoUpdate::abortDownload()
{
    if (d->reply)
        d->reply->abort();
}

void AutoUpdate::replyFinished(QNetworkReply* reply)
{
    // The network manager is shared: other replies are not ours to touch.
    if (!reply || reply != d->reply)
        return;
    d->reply = nullptr;

    if (d->progressDialog) {
        // We may be inside the dialog's own canceled() signal: let it unwind first.
        d->progressDialog->hide();
        d->progressDialog->deleteLater();
        d->progressDialog = nullptr;
    }

    const QNetworkReply::NetworkError error = reply->error();
    const QVariant statusAttribute = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    const int status = statusAttribute.toInt();
    const QString url = reply->request().url().toString();
    const bool httpAnswer = error == QNetworkReply::NoError || (statusAttribute.isValid() && isHttpStatusError(error));

    if (error == QNetworkReply::OperationCanceledError) {
        // The user cancelled: nothing to report.
    } else if (httpAnswer && error == QNetworkReply::NoError && status == 200) {
        d->saveDownload(reply);
    } else if (httpAnswer && status == 404) {
        d->showFailure(tr("Update file not found at %1").arg(url));
    } else if (httpAnswer) {
        const QString reason = reply->attribute(QNetworkRequest::HttpReasonPhraseAttribute).toString();
        d->showFailure(tr("Server returned \"%1: %2\" when requesting file at %3").arg(status).arg(reason, url));
    } else {
        d->showFailure(reply->errorString());
    }

    reply->deleteLater();
}

void AutoUpdate::setAllowMessageBoxes(bool allow)
{
    d->allowMessageBoxes = allow;
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
