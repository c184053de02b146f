// SPDX-License-Identifier: MIT
#include "screenshotrun.h"

#include "aboutbox.h"
#include "autoupdate.h"
#include "demohost.h"
#include "demoservices.h"
#include "demousagestatistics.h"
#include "localhttpserver.h"
#include "mainwindow.h"
#include "netmanager.h"
#include "runevents.h"
#include "usagedatadialog.h"
#include "watchdog.h"

#include <QApplication>
#include <QDate>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPixmap>
#include <QSet>
#include <QSettings>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QWidget>

#include <algorithm>
#include <cstdio>

namespace
{

/** Lets queued work (layouts, queued signals) run for a moment. */
void settle(int ms = 100)
{
    runEventsUntil(
        [] {
            return false;
        },
        ms);
}

QString usageSentOn()
{
    return QSettings().value(QStringLiteral("UsageStatistics/UsageDataWasSentOn")).toString();
}

} // namespace

ScreenshotRun::ScreenshotRun(DemoContext& context, const QString& directory)
    : m_context(context)
    , m_directory(QDir(directory).absolutePath())
{
}

void ScreenshotRun::report(const QString& line)
{
    std::fprintf(stdout, "%s\n", qPrintable(line));
    std::fflush(stdout);
}

void ScreenshotRun::failure(const QString& line)
{
    m_failures.append(line);
    std::fprintf(stderr, "gui_helpers_demo: FAILED: %s\n", qPrintable(line));
    std::fflush(stderr);
}

bool ScreenshotRun::save(QWidget* widget, const QString& fileName)
{
    widget->show();
    settle();
    const QPixmap pixmap = widget->grab();
    const QString path = QDir(m_directory).filePath(fileName);
    if (pixmap.isNull() || !pixmap.save(path, "PNG")) {
        failure(QStringLiteral("cannot write %1").arg(path));
        return false;
    }
    // Drawn widgets (text, frames, icons) give many colours; a window left empty gives one.
    const QImage image = pixmap.toImage();
    QSet<QRgb> colours;
    for (int y = 0; y < image.height(); y += 3) {
        for (int x = 0; x < image.width(); x += 3)
            colours.insert(image.pixel(x, y));
    }
    if (image.width() < 400 || image.height() < 300 || colours.size() < 16) {
        failure(QStringLiteral("%1 looks empty (%2x%3, %4 colours)").arg(path).arg(image.width()).arg(image.height()).arg(colours.size()));
        return false;
    }
    report(QStringLiteral("screenshot: %1 (%2x%3)").arg(path).arg(pixmap.width()).arg(pixmap.height()));
    return true;
}

void ScreenshotRun::checkForUpdates(MainWindow& window)
{
    AutoUpdate* autoUpdate = m_context.autoUpdate;
    Watchdog::setStage("checking for updates");
    bool answered = false;
    bool failed = false;
    const QMetaObject::Connection ok = QObject::connect(autoUpdate, &AutoUpdate::versionsUpdated, [&] {
        answered = true;
    });
    const QMetaObject::Connection bad = QObject::connect(autoUpdate, &AutoUpdate::failedToGetVersions, [&] {
        answered = failed = true;
    });
    window.checkForUpdates();
    const bool inTime = runEventsUntil(
        [&] {
            return answered;
        },
        20000);
    QObject::disconnect(ok);
    QObject::disconnect(bad);
    if (!inTime) {
        failure(QStringLiteral("no answer from the update server at %1 within 20 s").arg(autoUpdate->serverString()));
        return;
    }
    if (failed) {
        failure(QStringLiteral("the update server at %1 gave no releases (see the journal)").arg(autoUpdate->serverString()));
        return;
    }

    QList<AutoUpdate::Version> versions = autoUpdate->versions();
    std::sort(versions.begin(), versions.end(), AutoUpdate::displayLessThan);
    QStringList listed;
    for (const AutoUpdate::Version& version : qAsConst(versions))
        listed.append(QStringLiteral("%1 (%2)").arg(version.publicVersion, version.releaseType));
    report(QStringLiteral("update check: %1 releases found: %2").arg(versions.size()).arg(listed.join(QStringLiteral(", "))));

    const VxVersion current = m_context.host->currentVersion();
    const QString running = QStringLiteral("%1.%2.%3").arg(current.major()).arg(current.minor()).arg(current.revision());
    const AutoUpdate::Version* newest = nullptr;
    for (const AutoUpdate::Version& version : qAsConst(versions)) {
        const VxVersion v = AutoUpdate::fromInternalVersion(version.internalVersion);
        if (!version.beta && std::make_tuple(v.major(), v.minor(), v.revision()) > std::make_tuple(current.major(), current.minor(), current.revision()))
            newest = &version;
    }
    if (autoUpdate->isNewVersionAvailable())
        report(QStringLiteral("newer version: yes, %1 is newer than the running %2").arg(newest ? newest->publicVersion : QStringLiteral("a beta"), running));
    else
        report(QStringLiteral("newer version: no, the running %1 is the newest").arg(running));

    // The installer is on a web server of its own: download it as the user would, checked
    // against the trusted keys, into a throwaway folder instead of asking for one.
    if (newest && !newest->url.isEmpty()) {
        Watchdog::setStage("downloading the installer");
        QTemporaryDir folder;
        QString saved;
        QString failed;
        const QMetaObject::Connection done = QObject::connect(autoUpdate, &AutoUpdate::installerSaved, [&](const QString& path) {
            saved = path;
        });
        const QMetaObject::Connection bad = QObject::connect(autoUpdate, &AutoUpdate::downloadFailed, [&](const QString& reason) {
            failed = reason.isEmpty() ? QStringLiteral("failed") : reason;
        });
        autoUpdate->setDownloadFolder(folder.path());
        autoUpdate->setDownloadRetries(2);
        const bool inTime = autoUpdate->updateToVersion(newest->internalVersion, nullptr)
            && runEventsUntil(
                [&] {
                    return !saved.isEmpty() || !failed.isEmpty();
                },
                30000);
        QObject::disconnect(done);
        QObject::disconnect(bad);
        autoUpdate->setDownloadFolder(QString());
        autoUpdate->setDownloadRetries(0);
        const QString keyId = m_context.services ? m_context.services->demoKeyId() : QString();
        if (!saved.isEmpty() && !keyId.isEmpty())
            report(QStringLiteral("installer: %1 saved (%2 bytes), verified, signed by key %3").arg(newest->url).arg(QFileInfo(saved).size()).arg(keyId));
        else if (!saved.isEmpty())
            report(QStringLiteral("installer: %1 saved (%2 bytes)").arg(newest->url).arg(QFileInfo(saved).size()));
        else
            failure(QStringLiteral("installer %1 is not available: %2").arg(newest->url, inTime ? failed : QStringLiteral("no answer")));
    }

    // Firmware answers arrive in the settings, without a signal.
    Watchdog::setStage("waiting for the firmware lists");
    QStringList keys;
    for (const quint64 value : MainWindow::demoDeviceIds()) {
        const VxDeviceId id(value);
        keys.append(QString::fromStdString((id.isLegacyDeviceId() ? id.deviceType(true).toString() : id.toDeviceTypeString(true)).toStdString()));
    }
    const auto firmwareOf = [](const QString& key) {
        return QSettings().value(QStringLiteral("firmwareVersions/") + key).toString();
    };
    if (runEventsUntil(
            [&] {
                return std::all_of(keys.cbegin(), keys.cend(), [&](const QString& key) {
                    return !firmwareOf(key).isEmpty();
                });
            },
            10000)) {
        QStringList found;
        for (const QString& key : qAsConst(keys))
            found.append(QStringLiteral("%1 -> %2").arg(key, firmwareOf(key)));
        report(QStringLiteral("firmware: %1").arg(found.join(QStringLiteral(", "))));
        window.refreshFirmware();
    } else {
        failure(QStringLiteral("no firmware versions arrived for %1").arg(keys.join(QStringLiteral(", "))));
    }
}

void ScreenshotRun::sendUsageData()
{
    Watchdog::setStage("sending the usage data");
    DemoUsageStatistics* usage = m_context.usage;
    if (!usage->allowLogFilesForUser()) {
        report(QStringLiteral("usage data: not sent, the user has not consented"));
        return;
    }
    const QDate sentBefore = QDate::fromString(usageSentOn(), Qt::TextDate);
    if (sentBefore.isValid() && sentBefore >= QDate::currentDate()) {
        report(QStringLiteral("usage data: not sent, already sent today (at most once a day)"));
        return;
    }
    // Only finished logs travel; end this session's log and start the next, as a restart would.
    DemoUsageStatistics::log(QStringLiteral("Screenshots requested"));
    DemoUsageStatistics::log(usage->closingEvent());
    settle(5); // the next log's name holds the time in milliseconds
    usage->recreateLogFile();
    usage->startSendingUsageData(m_context.services->updateServerOptions());
    usage->terminateServerConnection(20000);
    if (QDate::fromString(usageSentOn(), Qt::TextDate) != QDate::currentDate()) {
        failure(QStringLiteral("usage data were not accepted by the update server at %1 (see the journal)").arg(m_context.autoUpdate->serverString()));
        return;
    }
    QString where;
    if (!m_context.services->inboxDirectory().isEmpty()) {
        // The embedded server keeps what arrived: this session's log must be there whole, header to closing event.
        const QDir inbox(m_context.services->inboxDirectory());
        const QStringList logs = inbox.entryList({QStringLiteral("*.log")}, QDir::Files);
        const QByteArray closing = ' ' + usage->closingEvent().toUtf8() + '\n';
        const bool arrivedWhole = std::any_of(logs.cbegin(), logs.cend(), [&](const QString& name) {
            QFile log(inbox.filePath(name));
            const QByteArray text = log.open(QIODevice::ReadOnly) ? log.readAll() : QByteArray();
            return text.startsWith("Version ") && text.contains("\nAnonRefID: ") && text.contains(" Screenshots requested\n") && text.contains(closing);
        });
        if (!arrivedWhole) {
            failure(QStringLiteral("the server's inbox %1 holds no whole copy of this session's log").arg(inbox.path()));
            return;
        }
        where = QStringLiteral("; the server's inbox %1 holds %2 log(s)%3")
                    .arg(m_context.services->inboxDirectory())
                    .arg(logs.size())
                    .arg(m_context.throwawayProfile ? QStringLiteral(" (removed at exit; --profile DIR keeps it)") : QString());
    }
    report(QStringLiteral("usage data: sent, the server accepted the finished logs%1").arg(where));
}

void ScreenshotRun::upload(MainWindow& window)
{
    Watchdog::setStage("uploading a file");
    bool ended = false;
    bool success = false;
    QString message;
    const QMetaObject::Connection connection = QObject::connect(&window, &MainWindow::uploadEnded, [&](bool ok, const QString& text) {
        ended = true;
        success = ok;
        message = text;
    });
    window.uploadSample();
    const bool inTime = runEventsUntil(
        [&] {
            return ended;
        },
        20000);
    QObject::disconnect(connection);
    if (!inTime) {
        failure(QStringLiteral("the upload to %1 did not end within 20 s").arg(m_context.services->tusUrl()));
        return;
    }
    if (!success) {
        failure(message);
        return;
    }
    QString check;
    if (LocalHttpServer* http = m_context.services->httpServer(); http && m_context.services->tusUrl() == http->tusUrl()) {
        QFile sent(QDir(QStandardPaths::writableLocation(QStandardPaths::CacheLocation)).filePath(QStringLiteral("sample-recording.bin")));
        const QList<LocalHttpServer::Upload> uploads = http->uploads();
        QFile stored(uploads.isEmpty() ? QString() : uploads.constLast().path);
        if (!sent.open(QIODevice::ReadOnly) || !stored.open(QIODevice::ReadOnly) || sent.readAll() != stored.readAll()) {
            failure(QStringLiteral("the endpoint's copy of the upload differs from the file sent"));
            return;
        }
        check = QStringLiteral("; the endpoint's copy matches");
    }
    report(QStringLiteral("upload: %1%2").arg(message, check));
}

int ScreenshotRun::exec()
{
    report(QStringLiteral("%1 %2: headless run").arg(QCoreApplication::applicationName(), QCoreApplication::applicationVersion()));
    if (!QDir().mkpath(m_directory)) {
        failure(QStringLiteral("cannot create %1").arg(m_directory));
        return 1;
    }
    report(QStringLiteral("update server: %1").arg(m_context.services->updateServerDescription()));
    report(QStringLiteral("upload endpoint: %1").arg(m_context.services->tusDescription()));

    // As if the user had ticked "Check for Beta versions": the beta shows, with its licence remark.
    m_context.host->setAcceptBeta(true);
    report(QStringLiteral("beta releases: accepted (\"UpdateCheck/AcceptBeta\" set, as the update window's check box does)"));

    MainWindow window(m_context);
    checkForUpdates(window);
    sendUsageData();
    window.refreshUsageState();
    upload(window);

    Watchdog::setStage("rendering the windows");
    AboutBox* about = window.createAboutBox(&window);
    save(about, QStringLiteral("about-box.png"));
    about->hide();
    AutoUpdateWindow* updates = window.createUpdateWindow(&window);
    save(updates, QStringLiteral("update-window.png"));
    updates->hide();
    // After the sending the logs wait in "Sent", so the dialog shows what went.
    UsageDataDialog* usageData = window.createUsageDataDialog(&window);
    save(usageData, QStringLiteral("usage-data.png"));
    usageData->hide();
    save(&window, QStringLiteral("main-window.png"));

    if (!m_failures.isEmpty()) {
        report(QStringLiteral("result: %1 step(s) failed").arg(m_failures.size()));
        return 1;
    }
    report(QStringLiteral("result: OK"));
    return 0;
}
