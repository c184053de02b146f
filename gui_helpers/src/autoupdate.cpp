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

bool isSha256Hex(const QByteArray& text)
{
    if (text.size() != 64)
        return false;
    return std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
    });
}

} // namespace

using autoupdate_p::compareVersions;

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
