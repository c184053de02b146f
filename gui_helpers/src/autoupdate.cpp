// SPDX-License-Identifier: MIT
#include "autoupdate.h"

#include "journaller.h"
#include "ui_autoupdatewindow.h"

#include <QDateTime>
#include <QDesktopServices>
#include <QFile>
#include <QFileDialog>
#include <QFileInfo>
#include <QHeaderView>
#include <QMessageBox>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QProgressDialog>
#include <QRegExp>
#include <QSettings>
#include <QTableWidgetItem>
#include <QUrl>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>

namespace
{
const QString kUpdateCheckGroup = QStringLiteral("UpdateCheck");
const QString kAcceptBetaKey = QStringLiteral("AcceptBeta");
const QString kFirmwareGroup = QStringLiteral("firmwareVersions");

// The server's labels are "v" + numbers joined by underscores; users see them dotted.
// No check of the form is made: every label the server sends is shown this way.
QString toPublicVersion(const QString& label)
{
    return label.mid(1).replace(QLatin1Char('_'), QLatin1Char('.'));
}

// Orders by major, minor and revision only; build and extra text never count.
int compareVersions(const VxVersion& a, const VxVersion& b)
{
    if (a.major() != b.major())
        return a.major() < b.major() ? -1 : 1;
    if (a.minor() != b.minor())
        return a.minor() < b.minor() ? -1 : 1;
    if (a.revision() != b.revision())
        return a.revision() < b.revision() ? -1 : 1;
    return 0;
}

QString settingText(const veltrax::SettingsFile& tree, const std::string& label)
{
    return QString::fromStdString(tree.settingThrow(label).toStdString());
}

// Qt turns HTTP error statuses into network errors of these two ranges; a reply that
// carries one of them still got an answer from the server.
bool isHttpStatusError(QNetworkReply::NetworkError error)
{
    return (error >= QNetworkReply::ContentAccessDenied && error <= QNetworkReply::UnknownContentError)
        || (error >= QNetworkReply::InternalServerError && error <= QNetworkReply::UnknownServerError);
}
} // namespace

AutoUpdatable::~AutoUpdatable() = default;

void AutoUpdatable::reserved1()
{
}

void AutoUpdatable::reserved2()
{
}

AutoUpdate::AutoUpdate(AutoUpdatable* host, QObject* parent)
    : QObject(parent)
    , m_host(host)
{
    m_comm = new UpdateServerComm(this, m_host->updateServerOptions());
    m_journaller = m_host->journaller();
    connect(m_netManager.qman(), &QNetworkAccessManager::finished, this, &AutoUpdate::replyFinished);
}

AutoUpdate::~AutoUpdate()
{
    if (QNetworkReply* reply = m_reply) {
        // Forget it first: aborting finishes it at once, and nobody is left to report to.
        m_reply = nullptr;
        reply->abort();
        reply->deleteLater();
    }
    delete m_progressDialog;
    m_progressDialog = nullptr;

    // Request threads are our children; they must have ended before QObject deletes them.
    if (m_comm)
        m_comm->terminate();
    const QList<ServerRequest*> requests = findChildren<ServerRequest*>(QString(), Qt::FindDirectChildrenOnly);
    for (ServerRequest* request : requests)
        request->wait();
}

QList<AutoUpdate::Version> AutoUpdate::versions() const
{
    return m_versions;
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
    auto* request = new ServerListRequest(*m_comm, m_host->productName(), QString(), this);
    connect(request, &ServerRequest::reply, this, &AutoUpdate::handleListReply);
    request->start(QThread::InheritPriority);
}

void AutoUpdate::handleListReply(const veltrax::SettingsFile& settings)
{
    m_versions.clear();
    if (settings.empty() || !settings.subTree(updateserver::ERROR_SECTION).empty()) {
        Q_EMIT failedToGetVersions();
        return;
    }

    const veltrax::SettingsFile& product = settings.subTree(m_host->productName().toStdString());
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
            m_versions.append(version);
        } catch (const std::exception& e) {
            JLOG_TO(m_journaller, "handleListReply", JLL_ERROR, std::string("Error while parsing reply: ") + e.what());
        }
    }

    // An empty product subtree is a valid answer: the product simply has no releases yet.
    if (!m_versions.isEmpty() || listed == 0) {
        std::sort(m_versions.begin(), m_versions.end());
        Q_EMIT versionsUpdated();
    } else {
        Q_EMIT failedToGetVersions();
    }
}

bool AutoUpdate::isNewVersionAvailable() const
{
    const VxVersion current = m_host->currentVersion();
    bool newerStable = false;
    bool newerBeta = false;
    for (const Version& version : m_versions) {
        const VxVersion offered = VxVersion::fromString(version.publicVersion.toStdString());
        if (compareVersions(offered, current) > 0) {
            if (version.beta)
                newerBeta = true;
            else
                newerStable = true;
        }
    }

    QSettings settings;
    settings.beginGroup(kUpdateCheckGroup);
    const bool acceptBeta = settings.value(kAcceptBetaKey, false).toBool();
    settings.setValue(kAcceptBetaKey, acceptBeta);
    settings.endGroup();

    return newerStable || (acceptBeta && newerBeta);
}

void AutoUpdate::requestFirmwareVersion(const VxDeviceId& id)
{
    ServerRequest* request = nullptr;
    VxString key;
    if (id.isLegacyDeviceId()) {
        request = new ServerListRequest(*m_comm,
            updateserver::legacyDeviceString(id, QString(), QString()),
            updateserver::legacyDeviceString(id.deviceTypeMask(true), QString(), QString()),
            this);
        key = id.deviceType(true).toString();
    } else {
        request = new ServerList2Request(*m_comm,
            updateserver::modernDeviceString(id, QString(), QString()),
            updateserver::modernDeviceString(id.deviceTypeMask(true), QString(), QString()),
            this);
        key = id.toDeviceTypeString(true);
    }
    if (!m_firmwareKeys.contains(key))
        m_firmwareKeys.append(key);
    connect(request, &ServerRequest::reply, this, &AutoUpdate::handleFirmwareListReply);
    request->start(QThread::InheritPriority);
}

QStringList AutoUpdate::firmwareKeys() const
{
    QStringList keys;
    for (const VxString& key : m_firmwareKeys)
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
    for (const VxString& key : qAsConst(m_firmwareKeys)) {
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
            JLOG_TO(m_journaller, "handleFirmwareListReply", JLL_ERROR, std::string("Error while parsing reply: ") + e.what());
        }
    }
    store.endGroup();
}

bool AutoUpdate::updateToVersion(const QString& intName, AutoUpdatable* host)
{
    Q_UNUSED(host)
    m_pendingVersion = Version();
    for (const Version& version : qAsConst(m_versions)) {
        if (version.internalVersion == intName) {
            m_pendingVersion = version;
            break;
        }
    }
    if (m_pendingVersion.internalVersion.isEmpty() || m_pendingVersion.url.isEmpty())
        return false;

    // Only one download is tracked; an earlier one runs on unobserved and cleans up after itself.
    if (m_reply) {
        connect(m_reply, &QNetworkReply::finished, m_reply, &QObject::deleteLater);
        m_reply = nullptr;
    }
    delete m_progressDialog;

    m_progressDialog = new QProgressDialog(tr("Downloading update, this may take a few minutes"), tr("Cancel"), 0, 1000);
    m_progressDialog->setWindowFlags(m_progressDialog->windowFlags() & ~Qt::WindowContextHelpButtonHint);
    m_progressDialog->setModal(true);
    m_progressDialog->setValue(0);
    m_progressDialog->setMinimumDuration(200);
    connect(m_progressDialog, &QProgressDialog::canceled, this, &AutoUpdate::abortDownload);
    m_progressDialog->show();

    QNetworkRequest request {QUrl(m_pendingVersion.url)};
    // Download hosts commonly redirect to a mirror; never from https down to http.
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::NoLessSafeRedirectPolicy);
    m_reply = m_netManager->get(request);
    m_reply->setReadBufferSize(0);
    connect(m_reply, &QNetworkReply::downloadProgress, this, &AutoUpdate::updateDownloadProgress);
    return true;
}

void AutoUpdate::updateDownloadProgress(qint64 received, qint64 total)
{
    if (!m_progressDialog)
        return;
    // An unknown (-1) or zero total gives no usable fraction; the dialog ignores values out of range.
    const double value = static_cast<double>(received) * 1000.0 / static_cast<double>(total);
    if (!std::isfinite(value) || value < INT_MIN || value > INT_MAX)
        return;
    m_progressDialog->setValue(static_cast<int>(std::round(value)));
}

void AutoUpdate::abortDownload()
{
    if (m_reply)
        m_reply->abort();
}

void AutoUpdate::replyFinished(QNetworkReply* reply)
{
    // The network manager is shared: other replies are not ours to touch.
    if (!reply || reply != m_reply)
        return;
    m_reply = nullptr;

    if (m_progressDialog) {
        // We may be inside the dialog's own canceled() signal: let it unwind first.
        m_progressDialog->hide();
        m_progressDialog->deleteLater();
        m_progressDialog = nullptr;
    }

    const QNetworkReply::NetworkError error = reply->error();
    const QVariant statusAttribute = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    const int status = statusAttribute.toInt();
    const QString url = reply->request().url().toString();
    const bool httpAnswer = error == QNetworkReply::NoError || (statusAttribute.isValid() && isHttpStatusError(error));

    if (error == QNetworkReply::OperationCanceledError) {
        // The user cancelled: nothing to report.
    } else if (httpAnswer && error == QNetworkReply::NoError && status == 200) {
        saveDownload(reply);
    } else if (httpAnswer && status == 404) {
        showFailure(tr("Update file not found at %1").arg(url));
    } else if (httpAnswer) {
        const QString reason = reply->attribute(QNetworkRequest::HttpReasonPhraseAttribute).toString();
        showFailure(tr("Server returned \"%1: %2\" when requesting file at %3").arg(status).arg(reason, url));
    } else {
        showFailure(reply->errorString());
    }

    m_pendingVersion = Version();
    reply->deleteLater();
}

void AutoUpdate::saveDownload(QNetworkReply* reply)
{
    const QByteArray data = reply->readAll();
    // Only the last path component: a percent-encoded slash must not lead out of the folder.
    const QString fileName = QFileInfo(reply->request().url().path(QUrl::FullyDecoded)).fileName();
    const QString folder = QFileDialog::getExistingDirectory(nullptr, tr("Select download folder"), QString(), QFileDialog::ShowDirsOnly);
    if (folder.isEmpty())
        return;

    const QString path = folder + QLatin1Char('/') + fileName;
    QFile file(path);
    if (fileName.isEmpty() || !file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        JLOG_TO(m_journaller, "replyFinished", JLL_ERROR, "Failed to create file " + path.toStdString());
        return;
    }
    if (file.write(data) != data.size() || !file.flush())
        JLOG_TO(m_journaller, "replyFinished", JLL_ERROR, "Failed to write file " + path.toStdString());
    file.close();
}

void AutoUpdate::showFailure(const QString& text) const
{
    if (!m_allowMessageBoxes)
        return;
    QMessageBox box(QMessageBox::Critical, tr("Failed to download update"), text, QMessageBox::Cancel);
    box.setModal(true);
    box.exec();
}

void AutoUpdate::setAllowMessageBoxes(bool allow)
{
    m_allowMessageBoxes = allow;
}

QString AutoUpdate::serverString() const
{
    return m_comm ? m_comm->serverString() : QString();
}

void AutoUpdate::terminate()
{
    if (m_comm)
        m_comm->terminate();
    VxTime_msleep(120);
}

// ---------------------------------------------------------------------------------------

QMap<int, QString> AutoUpdateWindow::colMap;

AutoUpdateWindow::AutoUpdateWindow(AutoUpdatable* host, AutoUpdate* autoUpdate, QWidget* parent, Qt::WindowFlags flags)
    : QDialog(parent, flags)
    , ui(new Ui_AutoUpdateWindow)
    , m_host(host)
    , m_autoUpdate(autoUpdate ? autoUpdate : new AutoUpdate(host, this))
    , m_licenseDateLimit(0)
{
    m_autoUpdate->setAllowMessageBoxes(true);
    if (colMap.isEmpty()) {
        colMap.insert(0, tr("Version"));
        colMap.insert(1, tr("Status"));
        colMap.insert(2, tr("Date"));
        colMap.insert(3, tr("Notes"));
        colMap.insert(4, tr("More information"));
    }

    ui->setupUi(this);
    ui->newVersionTextLabel->hide();
    ui->failureLabel->hide();
    ui->versionTableWidget->hide();
    ui->availableVersionsLabel->hide();
    ui->retrievingLabel->show();

    m_licenseDateLimit = m_host->licenseDateLimit();

    connect(m_autoUpdate, &AutoUpdate::versionsUpdated, this, &AutoUpdateWindow::updateVersionTable);
    connect(m_autoUpdate, &AutoUpdate::failedToGetVersions, this, &AutoUpdateWindow::reportUpdateFailure);

    QTableWidget* table = ui->versionTableWidget;
    table->setColumnCount(colMap.size());
    table->horizontalHeader()->setSectionResizeMode(QHeaderView::ResizeToContents);
    table->setHorizontalHeaderLabels(colMap.values());
    table->setSelectionBehavior(QAbstractItemView::SelectRows);
    table->setSelectionMode(QAbstractItemView::SingleSelection);
    connect(table, &QTableWidget::itemSelectionChanged, this, &AutoUpdateWindow::selectionChanged);

    ui->updatePushButton->setEnabled(false);
    ui->updatePushButton->setText(tr("Download"));
    ui->updatePushButton->setToolTip(tr("Download the selected item"));
    connect(ui->updatePushButton, &QPushButton::clicked, this, &AutoUpdateWindow::doUpdate);
    connect(ui->cancelPushButton, &QPushButton::clicked, this, &QWidget::close);

    const int interval = m_host->updateCheckInterval();
    if (interval == 0) {
        ui->updateIntervalSpinBox->setValue(7);
        ui->updateIntervalSpinBox->setEnabled(false);
        ui->intervalCheckBox->setChecked(false);
    } else {
        ui->updateIntervalSpinBox->setValue(interval);
        ui->updateIntervalSpinBox->setEnabled(true);
        ui->intervalCheckBox->setChecked(true);
    }
    connect(ui->intervalCheckBox, &QCheckBox::clicked, this, &AutoUpdateWindow::intervalChanged);
    connect(ui->updateIntervalSpinBox, QOverload<int>::of(&QSpinBox::valueChanged), this, &AutoUpdateWindow::intervalChanged);

    QSettings settings;
    settings.beginGroup(kUpdateCheckGroup);
    const bool acceptBeta = settings.value(kAcceptBetaKey, false).toBool();
    settings.endGroup();
    if (!m_host->allowBetaVersions()) {
        ui->betaCheckBox->hide();
    } else {
        ui->betaCheckBox->setChecked(acceptBeta);
        connect(ui->betaCheckBox, &QCheckBox::clicked, this, &AutoUpdateWindow::betaChanged);
        connect(ui->betaCheckBox, &QCheckBox::clicked, this, &AutoUpdateWindow::updateVersionTable);
    }

    if (!m_autoUpdate->versions().isEmpty())
        updateVersionTable();
    else
        m_autoUpdate->refresh();
}

AutoUpdateWindow::~AutoUpdateWindow() = default;

void AutoUpdateWindow::setNewVersionText(const QString& text)
{
    ui->newVersionTextLabel->setText(text);
}

void AutoUpdateWindow::updateVersionTable()
{
    ui->failureLabel->hide();
    ui->retrievingLabel->hide();
    ui->versionTableWidget->show();
    ui->availableVersionsLabel->show();

    const VxVersion current = m_host->currentVersion();
    QList<AutoUpdate::Version> list = m_autoUpdate->versions();

    QTableWidget* table = ui->versionTableWidget;
    table->clearContents();
    disconnect(table, &QTableWidget::cellClicked, this, nullptr);

    if (!(ui->betaCheckBox->isChecked() && m_host->allowBetaVersions()))
        list.erase(std::remove_if(list.begin(),
                       list.end(),
                       [](const AutoUpdate::Version& v) {
                           return v.beta;
                       }),
            list.end());

    bool currentIsBeta = false;
    for (const AutoUpdate::Version& version : qAsConst(list)) {
        if (compareVersions(AutoUpdate::fromInternalVersion(version.internalVersion), current) == 0) {
            currentIsBeta = version.beta;
            break;
        }
    }

    table->setRowCount(list.size());
    std::sort(list.begin(), list.end(), &AutoUpdate::displayLessThan);

    int selectRow = -1;
    const int count = list.size();
    for (int i = 0; i < count; ++i) {
        const AutoUpdate::Version& version = list.at(i);
        // Oldest at the bottom, newest at the top.
        const int row = count - 1 - i;

        auto* versionItem = new QTableWidgetItem(version.publicVersion);
        versionItem->setData(Qt::UserRole, version.internalVersion);
        table->setItem(row, 0, versionItem);
        const QDateTime date = QDateTime::fromMSecsSinceEpoch(version.date).toLocalTime();
        table->setItem(row, 2, new QTableWidgetItem(date.toString(tr("d MMM yyyy"))));
        table->setItem(row, 1, new QTableWidgetItem(version.releaseType));

        if (!version.infoLabel.isEmpty() && !version.infoUrl.isEmpty()) {
            auto* infoItem = new QTableWidgetItem(version.infoLabel);
            infoItem->setToolTip(tr("Click to open in a web browser"));
            QFont font = infoItem->font();
            font.setUnderline(true);
            infoItem->setFont(font);
            table->setItem(row, 4, infoItem);
            const QUrl infoUrl(version.infoUrl);
            connect(table, &QTableWidget::cellClicked, this, [row, infoUrl](int clickedRow, int clickedColumn) {
                if (clickedRow == row && clickedColumn == 4)
                    QDesktopServices::openUrl(infoUrl);
            });
        }

        const int order = compareVersions(AutoUpdate::fromInternalVersion(version.internalVersion), current);
        QString note;
        // The licence covers releases up to its date limit; none is set when the limit is 0 or less.
        if (m_licenseDateLimit > 0 && version.date > m_licenseDateLimit)
            note = tr("Current license does not allow running this version");
        else if (order == 0)
            note = tr("Current version");
        else if (order < 0)
            note = tr("Older than current");
        else
            note = tr("Newer than current");
        table->setItem(row, 3, new QTableWidgetItem(note));

        // Visiting oldest to newest, the newest qualifying release wins; a beta only when
        // nothing was chosen yet or the running version is itself a beta.
        if (order > 0 && (selectRow < 0 || currentIsBeta || !version.beta))
            selectRow = row;
    }

    if (selectRow >= 0)
        table->selectRow(selectRow);
    selectionChanged();

    if (m_autoUpdate->isNewVersionAvailable())
        ui->newVersionTextLabel->show();
}

void AutoUpdateWindow::reportUpdateFailure()
{
    ui->failureLabel->setText(tr("Failed to get version information from Veltrax update server at %1").arg(m_autoUpdate->serverString()));
    ui->failureLabel->show();
    ui->retrievingLabel->hide();
    ui->versionTableWidget->hide();
    ui->newVersionTextLabel->hide();
    // With the table gone its selection must not stay downloadable.
    selectionChanged();
}

void AutoUpdateWindow::selectionChanged()
{
    // Visible within this dialog, so that a selection made before the dialog is shown counts.
    QTableWidget* table = ui->versionTableWidget;
    ui->updatePushButton->setEnabled(!table->selectedItems().isEmpty() && table->isVisibleTo(this));
}

void AutoUpdateWindow::doUpdate()
{
    const QList<QTableWidgetItem*> selected = ui->versionTableWidget->selectedItems();
    if (selected.isEmpty())
        return;
    const QTableWidgetItem* versionItem = ui->versionTableWidget->item(selected.first()->row(), 0);
    if (!versionItem)
        return;
    m_autoUpdate->updateToVersion(versionItem->data(Qt::UserRole).toString(), m_host);
}

void AutoUpdateWindow::intervalChanged()
{
    if (ui->intervalCheckBox->isChecked()) {
        ui->updateIntervalSpinBox->setEnabled(true);
        Q_EMIT updateIntervalChanged(ui->updateIntervalSpinBox->value());
    } else {
        ui->updateIntervalSpinBox->setEnabled(false);
        Q_EMIT updateIntervalChanged(0);
    }
}
