// SPDX-License-Identifier: MIT
#include "mainwindow.h"

#include "aboutbox.h"
#include "autoupdate.h"
#include "demohost.h"
#include "demoservices.h"
#include "demousagestatistics.h"
#include "filepathvalidator.h"
#include "gridsplitter.h"
#include "gui_helpers_config.h"
#include "journaller.h"
#include "journalview.h"
#include "serialports.h"
#include "timeconversions.h"
#include "tusuploader.h"
#include "usagedatadialog.h"
#include "variant.h"

#include <QApplication>
#include <QCheckBox>
#include <QDate>
#include <QDir>
#include <QFile>
#include <QFileDialog>
#include <QFileInfo>
#include <QGridLayout>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QLinearGradient>
#include <QListWidget>
#include <QMenuBar>
#include <QPainter>
#include <QPainterPath>
#include <QProgressBar>
#include <QPushButton>
#include <QSettings>
#include <QStandardPaths>
#include <QStatusBar>
#include <QTimer>
#include <QVBoxLayout>

#include <cmath>

namespace
{

QGroupBox* pane(const QString& title, QWidget* parent)
{
    auto* box = new QGroupBox(title, parent);
    box->setMinimumSize(120, 80);
    return box;
}

QLabel* wrappingLabel(const QString& text = QString())
{
    auto* label = new QLabel(text);
    label->setWordWrap(true);
    label->setTextInteractionFlags(Qt::TextSelectableByMouse);
    return label;
}

QString sizeText(qint64 bytes)
{
    return QLocale::c().formattedDataSize(bytes, 1, QLocale::DataSizeTraditionalFormat);
}

QString publicVersion(const VxVersion& version)
{
    return QStringLiteral("%1.%2.%3").arg(version.major()).arg(version.minor()).arg(version.revision());
}

const QString LastCheckKey = QStringLiteral("Demo/LastUpdateCheck");

} // namespace

MainWindow::MainWindow(DemoContext& context, QWidget* parent)
    : QMainWindow(parent)
    , m_context(context)
{
    setWindowTitle(tr("%1 %2 — libgui_helpers demo").arg(QCoreApplication::applicationName(), QCoreApplication::applicationVersion()));
    setWindowIcon(logo(64));

    // The panes sit in a grid splitter: drag the gaps between them (also at a crossing).
    m_splitter = new GridSplitter(this);
    m_splitter->setContentsMargins(6, 6, 6, 6);
    QGridLayout* grid = m_splitter->grid();
    grid->addWidget(createUpdatesPane(), 0, 0);
    grid->addWidget(createUsagePane(), 0, 1);
    grid->addWidget(createUploadPane(), 1, 0);
    grid->addWidget(createValidationPane(), 1, 1);
    grid->addWidget(createSerialPortsPane(), 2, 0);
    grid->addWidget(createJournalPane(), 2, 1);
    m_splitter->resetGrid(-1, -1);
    setCentralWidget(m_splitter);

    QMenu* fileMenu = menuBar()->addMenu(tr("&File"));
    fileMenu->addAction(tr("&Upload a File…"), this, &MainWindow::chooseAndUploadFile);
    fileMenu->addAction(tr("Send &Usage Data"), this, &MainWindow::sendUsageData);
    fileMenu->addSeparator();
    fileMenu->addAction(tr("&Quit"), this, &QWidget::close, QKeySequence::Quit);
    QMenu* helpMenu = menuBar()->addMenu(tr("&Help"));
    helpMenu->addAction(tr("Check for &Updates…"), this, &MainWindow::showUpdateWindow);
    helpMenu->addAction(tr("&About %1…").arg(QCoreApplication::applicationName()), this, &MainWindow::showAboutBox);

    statusBar()->showMessage(tr("Journal: %1").arg(QDir::toNativeSeparators(m_context.journalPath)));
    resize(1180, 820);

    if (m_context.autoUpdate) {
        connect(m_context.autoUpdate, &AutoUpdate::versionsUpdated, this, &MainWindow::showVersions);
        connect(m_context.autoUpdate, &AutoUpdate::failedToGetVersions, this, &MainWindow::showUpdateFailure);
        connect(m_context.autoUpdate, &AutoUpdate::versionCheckFailed, this, [](const QString& reason) {
            JERROR("update check failed: " << reason);
        });
        // A notification line, as an application shows it: the release, and a way to skip it.
        auto* notice = new QLabel(this);
        notice->setObjectName(QStringLiteral("newVersionNotice"));
        notice->hide();
        statusBar()->addPermanentWidget(notice);
        connect(m_context.autoUpdate, &AutoUpdate::newVersionAvailable, this, [this, notice](const AutoUpdate::Version& newest) {
            statusBar()->showMessage(tr("A newer version is available: Help ▸ Check for Updates"), 15000);
            notice->setText(tr("Version %1 is available. <a href=\"%2\">Skip this version</a>").arg(newest.publicVersion, newest.internalVersion));
            notice->show();
        });
        connect(notice, &QLabel::linkActivated, this, [this, notice](const QString& internalVersion) {
            m_context.autoUpdate->skipVersion(internalVersion);
            notice->hide();
        });
        if (!m_context.autoUpdate->versions().isEmpty())
            showVersions();
    }
    if (m_context.usage) {
        connect(m_context.usage, &AbstractUsageStatisticsSingleton::usageDataSendingFinished, this, [this](bool accepted, const QString& reason) {
            refreshUsageState();
            if (!accepted)
                JERROR("usage data refused: " << reason);
        });
    }
    refreshUsageState();
    refreshFirmware();
    // A suite application checks by itself when the interval since the last check has passed.
    QTimer::singleShot(0, this, &MainWindow::automaticUpdateCheck);
}

MainWindow::~MainWindow() = default;

QList<quint64> MainWindow::demoDeviceIds()
{
    // A modern sensor (product 0007, variant 0002) and a legacy one (class 03, family 3).
    return {0x0007000200001234ull, 0x0330A1B2ull};
}

QPixmap MainWindow::logo(int size)
{
    QPixmap pixmap(size, size);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    const QRectF frame(size * 0.04, size * 0.04, size * 0.92, size * 0.92);
    QLinearGradient gradient(frame.topLeft(), frame.bottomRight());
    gradient.setColorAt(0, QColor(0x2b, 0x8a, 0x9e));
    gradient.setColorAt(1, QColor(0x1d, 0x3c, 0x6e));
    painter.setPen(Qt::NoPen);
    painter.setBrush(gradient);
    painter.drawRoundedRect(frame, size * 0.2, size * 0.2);
    // A motion trace: the suite works with motion sensors.
    QPainterPath trace;
    const int steps = 48;
    for (int i = 0; i <= steps; ++i) {
        const qreal x = frame.left() + frame.width() * (0.12 + 0.76 * i / steps);
        const qreal t = (i / qreal(steps)) * 3.14159265 * 3;
        const qreal y = frame.center().y() - frame.height() * 0.25 * std::sin(t) * (1.0 - i / qreal(steps + 8));
        if (i == 0)
            trace.moveTo(x, y);
        else
            trace.lineTo(x, y);
    }
    painter.setBrush(Qt::NoBrush);
    painter.setPen(QPen(Qt::white, size * 0.07, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    painter.drawPath(trace);
    painter.setPen(Qt::NoPen);
    painter.setBrush(QColor(0xf5, 0xa6, 0x23));
    painter.drawEllipse(trace.currentPosition(), size * 0.07, size * 0.07);
    return pixmap;
}

// ---- about box ------------------------------------------------------------------------

AboutBox* MainWindow::createAboutBox(QWidget* parent)
{
    auto* box = new AboutBox(parent);
    box->setLogo(logo(96));
    box->setProductName(QString());
    box->setApplicationSuffix(QCoreApplication::applicationVersion());
    box->setBuildInfo(QStringLiteral("4711"), QStringLiteral("a1b2c3d"), QStringLiteral("2021-06-21"), QStringLiteral("yyyy-MM-dd"), 0);
    box->addTrademarkLine(tr("Veltrax and Kinemon are trademarks of Veltrax Motion Systems."));
    box->addTrademarkLine(tr("Qt is a registered trademark of The Qt Company Ltd. and its subsidiaries."));

    QFile eula(QStringLiteral(":/demo/eula.html"));
    if (eula.open(QIODevice::ReadOnly))
        box->setEula(QString::fromUtf8(eula.readAll()));

    box->addComponent(QStringLiteral("libgui_helpers"), QStringLiteral(GUI_HELPERS_VERSION_STRING));
    box->addComponent(QStringLiteral("Demo update catalogue"), QStringLiteral("2021.1"));
    box->addLicencedComponent(QStringLiteral("<a href=\"https://eigen.tuxfamily.org/\">Eigen</a>"),
        QStringLiteral("3.4"),
        QStringLiteral("MPL 2.0"),
        QStringLiteral("https://www.mozilla.org/MPL/2.0/"));
    box->addLicencedComponent(
        QStringLiteral("JSON for Modern C++"), QStringLiteral("3.11"), QStringLiteral("MIT"), QStringLiteral("https://opensource.org/licenses/MIT"));
    box->addLicencedComponent(QStringLiteral("<a href=\"https://www.openssl.org/\">OpenSSL</a>"),
        QStringLiteral("3.0"),
        QStringLiteral("Apache License 2.0"),
        QStringLiteral("https://www.apache.org/licenses/LICENSE-2.0"));

    // "Check for Updates" opens the update window; the check box shows and changes the consent.
    box->showCheckForUpdatesButton(m_context.autoUpdate != nullptr);
    connect(box, &AboutBox::checkForUpdates, this, &MainWindow::showUpdateWindow);
    box->showUsageDataCheckbox(true, m_context.usage && m_context.usage->allowLogFilesForUser());
    connect(box, &AboutBox::allowUsageDataGathering, this, &MainWindow::setUsageConsent);
    connect(this, &MainWindow::usageConsentChanged, box, [box](bool allow) {
        box->showUsageDataCheckbox(true, allow);
    });
    box->showUsageDataDetailsLink(true);
    connect(box, &AboutBox::usageDataDetailsRequested, this, [this] {
        UsageDataDialog* dialog = createUsageDataDialog(this);
        dialog->setAttribute(Qt::WA_DeleteOnClose);
        dialog->open();
    });
    box->setCurrentSelection(0);
    return box;
}

UsageDataDialog* MainWindow::createUsageDataDialog(QWidget* parent)
{
    auto* dialog = new UsageDataDialog(m_context.usage, parent);
    // Consent changed or logs deleted there show here (and in an open about box) at once.
    connect(dialog, &QDialog::finished, this, [this] {
        if (m_context.usage)
            Q_EMIT usageConsentChanged(m_context.usage->allowLogFilesForUser());
        refreshUsageState();
    });
    return dialog;
}

void MainWindow::showAboutBox()
{
    DemoUsageStatistics::log(QStringLiteral("About box opened"));
    if (!m_aboutBox)
        m_aboutBox = createAboutBox(this);
    m_aboutBox->show();
    m_aboutBox->raise();
}

// ---- automatic updates ----------------------------------------------------------------

AutoUpdateWindow* MainWindow::createUpdateWindow(QWidget* parent)
{
    // Shares the main window's controller, so it shows the releases already known.
    auto* window = new AutoUpdateWindow(m_context.host, m_context.autoUpdate, parent);
    window->setNewVersionText(
        tr("A newer version of %1 is available. Select it and press Download to fetch its installer.").arg(QCoreApplication::applicationName()));
    // Wide enough for the licence remark and the information links side by side.
    window->resize(880, 420);
    // The window reports the user's choices; the host stores them.
    connect(window, &AutoUpdateWindow::betaChanged, m_context.host, &DemoHost::setAcceptBeta);
    connect(window, &AutoUpdateWindow::updateIntervalChanged, m_context.host, &DemoHost::setUpdateCheckInterval);
    return window;
}

void MainWindow::showUpdateWindow()
{
    if (!m_context.autoUpdate)
        return;
    DemoUsageStatistics::log(QStringLiteral("Update window opened"));
    if (!m_updateWindow) {
        m_updateWindow = createUpdateWindow(this);
        m_updateWindow->setAttribute(Qt::WA_DeleteOnClose);
    } else {
        m_context.autoUpdate->refresh();
    }
    m_updateWindow->show();
    m_updateWindow->raise();
}

void MainWindow::checkForUpdates()
{
    if (!m_context.autoUpdate)
        return;
    m_updateStateLabel->setText(tr("Asking %1 …").arg(m_context.autoUpdate->serverString()));
    m_context.autoUpdate->refresh();
    for (const quint64 id : demoDeviceIds())
        m_context.autoUpdate->requestFirmwareVersion(VxDeviceId(id));
    QSettings().setValue(LastCheckKey, xqDateTimeNow());
    // The firmware answers land in the settings without a signal: look again shortly.
    QTimer::singleShot(1500, this, &MainWindow::refreshFirmware);
}

void MainWindow::automaticUpdateCheck()
{
    if (!m_context.autoUpdate || !m_context.host)
        return;
    // The library keeps the time of the last check and asks again whenever it is due.
    JDEBUG("automatic update checks every " << m_context.host->updateCheckInterval() << " days");
    m_context.autoUpdate->startAutomaticChecks();
}

void MainWindow::showVersions()
{
    const QList<AutoUpdate::Version> versions = m_context.autoUpdate->versions();
    const VxVersion current = m_context.host->currentVersion();
    QString newest;
    for (const AutoUpdate::Version& version : versions) {
        const VxVersion v = AutoUpdate::fromInternalVersion(version.internalVersion);
        const bool newer = std::make_tuple(v.major(), v.minor(), v.revision()) > std::make_tuple(current.major(), current.minor(), current.revision());
        if (newer && !version.beta)
            newest = tr("%1 (%2)").arg(version.publicVersion, version.releaseType);
    }
    const bool available = m_context.autoUpdate->isNewVersionAvailable();
    QString text = tr("Checked at %1: the server lists %n release(s).", nullptr, versions.size()).arg(xqDateTimeNow().toString(QStringLiteral("hh:mm")));
    if (available)
        text += QLatin1Char(' ') + tr("<b>A newer version is available:</b> %1.").arg(newest.isEmpty() ? tr("a beta release") : newest);
    else
        text += QLatin1Char(' ') + tr("%1 is up to date.").arg(publicVersion(current));
    m_updateStateLabel->setText(text);
    if (available && m_automaticCheck)
        statusBar()->showMessage(tr("A newer version is available: Help ▸ Check for Updates"), 15000);
    m_automaticCheck = false;
    refreshFirmware();
}

void MainWindow::showUpdateFailure()
{
    m_updateStateLabel->setText(tr("<span style=\"color:#b00020\">Could not get the releases from %1.</span> See the journal for the reason.")
                                    .arg(m_context.autoUpdate->serverString()));
    m_automaticCheck = false;
}

void MainWindow::refreshFirmware()
{
    if (!m_firmwareLabel)
        return;
    QSettings settings;
    settings.beginGroup(QStringLiteral("firmwareVersions"));
    QStringList lines;
    for (const quint64 value : demoDeviceIds()) {
        const VxDeviceId id(value);
        // The key under which the controller stores a device's firmware.
        const QString key = QString::fromStdString((id.isLegacyDeviceId() ? id.deviceType(true).toString() : id.toDeviceTypeString(true)).toStdString());
        const QString firmware = settings.value(key).toString();
        lines.append(tr("%1: %2").arg(key, firmware.isEmpty() ? tr("not known yet") : firmware));
    }
    m_firmwareLabel->setText(tr("Firmware reported for the demo devices — %1").arg(lines.join(QStringLiteral(", "))));
}

QWidget* MainWindow::createUpdatesPane()
{
    QGroupBox* box = pane(tr("Automatic updates"), this);
    auto* layout = new QVBoxLayout(box);
    layout->addWidget(wrappingLabel(tr("Running <b>%1 %2</b> (build %3).")
                                        .arg(QCoreApplication::applicationName(), publicVersion(DemoHost::runningVersion()))
                                        .arg(DemoHost::runningVersion().build())));
    if (m_context.services)
        layout->addWidget(wrappingLabel(tr("Update server: %1.").arg(m_context.services->updateServerDescription())));
    m_updateStateLabel = wrappingLabel(m_context.autoUpdate ? tr("Not checked yet in this run.") : tr("Automatic updates are not available."));
    layout->addWidget(m_updateStateLabel);
    m_firmwareLabel = wrappingLabel();
    layout->addWidget(m_firmwareLabel);
    auto* buttons = new QHBoxLayout;
    auto* check = new QPushButton(tr("Check now"), box);
    connect(check, &QPushButton::clicked, this, &MainWindow::checkForUpdates);
    auto* window = new QPushButton(tr("Update window…"), box);
    connect(window, &QPushButton::clicked, this, &MainWindow::showUpdateWindow);
    check->setEnabled(m_context.autoUpdate != nullptr);
    window->setEnabled(m_context.autoUpdate != nullptr);
    buttons->addWidget(check);
    buttons->addWidget(window);
    buttons->addStretch();
    layout->addLayout(buttons);
    layout->addStretch();
    return box;
}

// ---- upload ---------------------------------------------------------------------------

QWidget* MainWindow::createUploadPane()
{
    QGroupBox* box = pane(tr("Resumable upload (tus 1.0.0)"), this);
    auto* layout = new QVBoxLayout(box);
    if (m_context.services)
        layout->addWidget(wrappingLabel(tr("Endpoint: %1.").arg(m_context.services->tusDescription())));
    m_uploadProgress = new QProgressBar(box);
    m_uploadProgress->setRange(0, 100);
    m_uploadProgress->setValue(0);
    layout->addWidget(m_uploadProgress);
    m_uploadStateLabel = wrappingLabel(tr("Nothing uploaded yet."));
    layout->addWidget(m_uploadStateLabel);
    auto* buttons = new QHBoxLayout;
    m_uploadButton = new QPushButton(tr("Upload a file…"), box);
    connect(m_uploadButton, &QPushButton::clicked, this, &MainWindow::chooseAndUploadFile);
    m_sampleButton = new QPushButton(tr("Upload a sample"), box);
    connect(m_sampleButton, &QPushButton::clicked, this, &MainWindow::uploadSample);
    buttons->addWidget(m_uploadButton);
    buttons->addWidget(m_sampleButton);
    // The upload URL stays remembered: the same file, started again, goes on where it stopped.
    m_cancelUploadButton = new QPushButton(tr("Cancel"), box);
    m_cancelUploadButton->setEnabled(false);
    connect(m_cancelUploadButton, &QPushButton::clicked, this, [this] {
        if (m_uploader)
            m_uploader->abort();
    });
    buttons->addWidget(m_cancelUploadButton);
    buttons->addStretch();
    layout->addLayout(buttons);
    layout->addStretch();

    if (m_context.services && !m_context.services->tusUrl().isEmpty()) {
        m_uploader = new TusUploader(m_context.services->tusUrl(), this);
        // Small chunks, so that the progress bar moves in steps even on loopback.
        m_uploader->setChunkSize(256 * 1024);
        // Everything that keeps an upload alive: resume from the server's offset (across
        // restarts too), bounded retries, and a stalled server noticed.
        m_uploader->setResumable(true);
        m_uploader->setRetryDelays({1000, 3000, 5000, 10000, 20000});
        m_uploader->setStallTimeout(30000);
        connect(m_uploader, &TusUploader::uploadProgress, this, [this](const QString&, qint64, qint64 sent, int percent, qint64 rate) {
            m_uploadProgress->setValue(percent);
            m_uploadStateLabel->setText(tr("%1 sent (%2/s)").arg(sizeText(sent), sizeText(rate)));
        });
        connect(m_uploader, &TusUploader::uploadFinished, this, [this](const QString& path) {
            m_uploadProgress->setValue(100);
            const QString message
                = tr("Uploaded %1 (%2) to %3").arg(QFileInfo(path).fileName(), sizeText(QFileInfo(path).size()), m_uploader->serverFilePath());
            m_uploadStateLabel->setText(message + QLatin1Char('.'));
            m_uploadButton->setEnabled(true);
            m_sampleButton->setEnabled(true);
            m_cancelUploadButton->setEnabled(false);
            DemoUsageStatistics::log(QStringLiteral("File uploaded"));
            Q_EMIT uploadEnded(true, message);
        });
        connect(m_uploader, &TusUploader::uploadFailed, this, [this](const QString& path, const QString& reason) {
            const QString message = tr("Upload of %1 failed: %2").arg(QFileInfo(path).fileName(), reason);
            m_uploadStateLabel->setText(tr("<span style=\"color:#b00020\">%1</span>").arg(message.toHtmlEscaped()));
            m_uploadButton->setEnabled(true);
            m_sampleButton->setEnabled(true);
            m_cancelUploadButton->setEnabled(false);
            Q_EMIT uploadEnded(false, message);
        });
    } else {
        m_uploadButton->setEnabled(false);
        m_sampleButton->setEnabled(false);
    }
    return box;
}

bool MainWindow::uploadFile(const QString& path)
{
    if (!m_uploader)
        return false;
    QString metadata;
    TusUploader::appendMetaData(metadata, QStringLiteral("filename"), veltrax::Variant(QFileInfo(path).fileName().toStdString()));
    TusUploader::appendMetaData(metadata, QStringLiteral("application"), veltrax::Variant(QCoreApplication::applicationName().toStdString()));
    TusUploader::appendMetaData(metadata, QStringLiteral("size"), veltrax::Variant(static_cast<long long>(QFileInfo(path).size())));
    if (!m_uploader->startUploadFile(path, metadata)) {
        m_uploadStateLabel->setText(tr("Cannot upload %1: an upload is running, or the file does not exist.").arg(QFileInfo(path).fileName()));
        return false;
    }
    m_uploadProgress->setValue(0);
    m_uploadStateLabel->setText(tr("Uploading %1 …").arg(QFileInfo(path).fileName()));
    m_uploadButton->setEnabled(false);
    m_sampleButton->setEnabled(false);
    m_cancelUploadButton->setEnabled(true);
    return true;
}

void MainWindow::chooseAndUploadFile()
{
    const QString path = QFileDialog::getOpenFileName(this, tr("Upload a File"));
    if (!path.isEmpty())
        uploadFile(path);
}

void MainWindow::uploadSample()
{
    // A few MiB of recognisable bytes in the cache directory.
    const QString dir = QStandardPaths::writableLocation(QStandardPaths::CacheLocation);
    QDir().mkpath(dir);
    const QString path = QDir(dir).filePath(QStringLiteral("sample-recording.bin"));
    QFile file(path);
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        QByteArray block(64 * 1024, '\0');
        for (int i = 0; i < block.size(); ++i)
            block[i] = static_cast<char>((i * 31 + 7) & 0xff);
        for (int i = 0; i < 48; ++i)
            file.write(block);
        file.close();
    }
    uploadFile(path);
}

// ---- usage statistics -----------------------------------------------------------------

void MainWindow::setUsageConsent(bool allow)
{
    if (!m_context.usage)
        return;
    const bool before = m_context.usage->allowLogFilesForUser();
    // Stores a first decision even when it matches the default, and does nothing when unchanged.
    m_context.usage->setAllowLogFilesForUser(allow);
    if (before != allow)
        JWRITE("usage statistics " << (allow ? "allowed" : "refused") << " by the user");
    refreshUsageState();
    Q_EMIT usageConsentChanged(allow);
}

void MainWindow::sendUsageData()
{
    if (!m_context.usage || !m_context.services)
        return;
    if (!m_context.usage->allowLogFilesForUser()) {
        m_usageStateLabel->setText(tr("Nothing is sent without the user's consent."));
        return;
    }
    QSettings settings;
    const QDate sentOn = QDate::fromString(settings.value(QStringLiteral("UsageStatistics/UsageDataWasSentOn")).toString(), Qt::TextDate);
    if (sentOn.isValid() && sentOn >= QDate::currentDate()) {
        m_usageStateLabel->setText(tr("Usage data were already sent today; they go at most once a day."));
        return;
    }
    m_context.usage->startSendingUsageData(m_context.services->updateServerOptions());
    m_usageStateLabel->setText(tr("Sending the finished usage logs …"));
    // usageDataSendingFinished() refreshes the state when the reply has been handled.
}

QWidget* MainWindow::createUsagePane()
{
    QGroupBox* box = pane(tr("Usage statistics"), this);
    auto* layout = new QVBoxLayout(box);
    m_consentCheckBox = new QCheckBox(tr("Allow anonymous usage statistics"), box);
    connect(m_consentCheckBox, &QCheckBox::clicked, this, &MainWindow::setUsageConsent);
    connect(this, &MainWindow::usageConsentChanged, m_consentCheckBox, &QCheckBox::setChecked);
    layout->addWidget(m_consentCheckBox);
    m_usageLogLabel = wrappingLabel();
    layout->addWidget(m_usageLogLabel);
    m_usageStateLabel = wrappingLabel();
    layout->addWidget(m_usageStateLabel);
    auto* logEvent = new QPushButton(tr("Log a use event"), box);
    connect(logEvent, &QPushButton::clicked, this, [this] {
        static int count = 0;
        DemoUsageStatistics::log(QStringLiteral("Demo button pressed %1").arg(++count));
        refreshUsageState();
    });
    auto* send = new QPushButton(tr("Send usage data"), box);
    connect(send, &QPushButton::clicked, this, &MainWindow::sendUsageData);
    send->setEnabled(m_context.services != nullptr);
    // Exactly what the next sending carries, and the copies kept after earlier ones.
    auto* whatIsSent = new QPushButton(tr("What is sent?"), box);
    connect(whatIsSent, &QPushButton::clicked, this, [this] {
        UsageDataDialog* dialog = createUsageDataDialog(this);
        dialog->setAttribute(Qt::WA_DeleteOnClose);
        dialog->open();
    });
    auto* buttons = new QHBoxLayout;
    buttons->addWidget(logEvent);
    buttons->addWidget(send);
    buttons->addWidget(whatIsSent);
    buttons->addStretch();
    layout->addLayout(buttons);
    layout->addStretch();
    return box;
}

void MainWindow::refreshUsageState()
{
    if (!m_context.usage)
        return;
    const bool allowed = m_context.usage->allowLogFilesForUser();
    m_consentCheckBox->setChecked(allowed);
    const QString path = m_context.usage->logFilePath();
    if (!allowed)
        m_usageLogLabel->setText(tr("No usage log is kept: the user has not consented."));
    else if (path.isEmpty())
        m_usageLogLabel->setText(tr("No usage log yet."));
    else
        // Zero-width spaces let the long name wrap at its underscores.
        m_usageLogLabel->setText(tr("This run's log: %1").arg(QFileInfo(path).fileName().replace(QLatin1Char('_'), QStringLiteral("_\u200b"))));
    QSettings settings;
    settings.beginGroup(QStringLiteral("UsageStatistics"));
    const QString sentOn = settings.value(QStringLiteral("UsageDataWasSentOn")).toString();
    m_usageStateLabel->setText(sentOn.isEmpty() ? tr("Usage data have not been sent yet.") : tr("Usage data last accepted by the server on %1.").arg(sentOn));
}

// ---- widgets --------------------------------------------------------------------------

QWidget* MainWindow::createValidationPane()
{
    QGroupBox* box = pane(tr("File path validation"), this);
    auto* layout = new QGridLayout(box);
    auto* hint = wrappingLabel(tr("Characters that no file system takes (* : < > ? | \" %) cannot be typed. Reserved device names (con, "
                                  "com1, lpt9, …) and names ending in a space or a dot are intermediate: <i>Repair</i> fixes one fault."));
    hint->setTextFormat(Qt::RichText);
    layout->addWidget(hint, 0, 0, 1, 4);

    const auto addRow = [this, box, layout](int row, const QString& title, QValidator* validator, const QString& example) {
        auto* edit = new QLineEdit(example, box);
        edit->setValidator(validator);
        auto* state = new QLabel(box);
        state->setMinimumWidth(state->fontMetrics().horizontalAdvance(tr("Intermediate")) + 8);
        auto* repair = new QPushButton(tr("Repair"), box);
        const auto update = [edit, state, validator] {
            QString text = edit->text();
            int position = edit->cursorPosition();
            switch (validator->validate(text, position)) {
            case QValidator::Acceptable:
                state->setText(tr("<span style=\"color:#1e7b34\">Acceptable</span>"));
                break;
            case QValidator::Intermediate:
                state->setText(tr("<span style=\"color:#b36b00\">Intermediate</span>"));
                break;
            case QValidator::Invalid:
                state->setText(tr("<span style=\"color:#b00020\">Invalid</span>"));
                break;
            }
        };
        connect(edit, &QLineEdit::textChanged, state, update);
        connect(repair, &QPushButton::clicked, edit, [edit, validator] {
            QString text = edit->text();
            validator->fixup(text);
            edit->setText(text);
        });
        update();
        layout->addWidget(new QLabel(title, box), row, 0);
        layout->addWidget(edit, row, 1);
        layout->addWidget(state, row, 2);
        layout->addWidget(repair, row, 3);
    };
    addRow(1, tr("Path:"), new QFilePathValidator(box), QStringLiteral("C:\\Measurements\\com1.csv"));
    addRow(2, tr("File name:"), new QFileNameValidator(box), QStringLiteral("session 12. "));
    layout->setColumnStretch(1, 1);
    layout->setRowStretch(3, 1);
    return box;
}

QWidget* MainWindow::createSerialPortsPane()
{
    QGroupBox* box = pane(tr("Serial ports"), this);
    auto* layout = new QVBoxLayout(box);
    m_serialPorts = new QListWidget(box);
    layout->addWidget(m_serialPorts);
    auto* refresh = new QPushButton(tr("Refresh"), box);
    connect(refresh, &QPushButton::clicked, this, &MainWindow::refreshSerialPorts);
    auto* buttons = new QHBoxLayout;
    buttons->addStretch();
    buttons->addWidget(refresh);
    layout->addLayout(buttons);
    refreshSerialPorts();
    return box;
}

void MainWindow::refreshSerialPorts()
{
    m_serialPorts->clear();
    const QStringList ports = qEnumerateSerialPorts();
    for (const QString& port : ports)
        m_serialPorts->addItem(comPortDisplayName(port));
    if (ports.isEmpty()) {
        auto* item = new QListWidgetItem(tr("No serial ports found (is libudev.so installed?)"), m_serialPorts);
        item->setFlags(Qt::NoItemFlags);
    }
    JDEBUG(ports.size() << " serial port(s) found");
}

QWidget* MainWindow::createJournalPane()
{
    QGroupBox* box = pane(tr("Journal"), this);
    auto* layout = new QVBoxLayout(box);
    m_journalView = new JournalView(box);
    layout->addWidget(m_journalView);
    return box;
}
