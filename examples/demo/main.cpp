// SPDX-License-Identifier: MIT
//
// gui_helpers_demo: a small host application that uses every part of libgui_helpers the way
// a suite application does. See --help and the README.
#include "autoupdate.h"
#include "demohost.h"
#include "demooptions.h"
#include "demoservices.h"
#include "demousagestatistics.h"
#include "journaller.h"
#include "journalview.h"
#include "mainwindow.h"
#include "quitonsignals.h"
#include "screenshotrun.h"
#include "watchdog.h"

#include <QApplication>
#include <QDir>
#include <QMessageBox>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace
{

/** Qt's own messages go to the journal like everything else; warnings also to standard error. */
void journalQtMessage(QtMsgType type, const QMessageLogContext&, const QString& message)
{
    // Harmless remarks of the offscreen platform and of a session without a runtime directory.
    if (message.startsWith(QLatin1String("This plugin does not support")) || message.startsWith(QLatin1String("QStandardPaths: XDG_RUNTIME_DIR")))
        return;
    JournalLogLevel level = JLL_DEBUG;
    switch (type) {
    case QtDebugMsg:
    case QtInfoMsg:
        break;
    case QtWarningMsg:
        level = JLL_ALERT;
        break;
    case QtCriticalMsg:
        level = JLL_ERROR;
        break;
    case QtFatalMsg:
        level = JLL_FATAL;
        break;
    }
    JLOG_TO(gJournal, "qt", level, message);
    if (level >= JLL_ALERT)
        std::fprintf(stderr, "gui_helpers_demo: %s\n", qPrintable(message));
    if (type == QtFatalMsg)
        std::abort();
}

bool hasDisplay()
{
    return !qEnvironmentVariableIsEmpty("DISPLAY") || !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY");
}

/** Points settings and data locations into @p directory, so a run leaves the user's own alone. */
void useProfile(const QString& directory)
{
    const QDir dir(directory);
    for (const char* name : {"config", "data", "cache"})
        QDir().mkpath(dir.filePath(QLatin1String(name)));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(dir.filePath(QStringLiteral("config"))));
    qputenv("XDG_DATA_HOME", QFile::encodeName(dir.filePath(QStringLiteral("data"))));
    qputenv("XDG_CACHE_HOME", QFile::encodeName(dir.filePath(QStringLiteral("cache"))));
}

} // namespace

int main(int argc, char** argv)
{
    // The platform must be chosen before the application object exists. Screenshots are
    // always rendered offscreen (same pictures everywhere, no windows flashing by).
    const bool screenshots = wantsScreenshots(argc, argv);
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM") && (screenshots || !hasDisplay()))
        qputenv("QT_QPA_PLATFORM", "offscreen");

    qInstallMessageHandler(journalQtMessage);
    QApplication app(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("Veltrax"));
    QCoreApplication::setOrganizationDomain(QStringLiteral("veltrax.example"));
    QCoreApplication::setApplicationName(QStringLiteral("GuiHelpersDemo"));
    QCoreApplication::setApplicationVersion(QStringLiteral("2021.1.0"));

    const DemoOptions options = parseDemoOptions();
    if (!options.headless() && QGuiApplication::platformName() == QLatin1String("offscreen")) {
        std::fprintf(stderr, "gui_helpers_demo: there is no display; run with --screenshots DIR to render the windows to PNG files instead\n");
        return 2;
    }
    if (QGuiApplication::platformName() == QLatin1String("offscreen"))
        QApplication::setStyle(QStringLiteral("Fusion"));
    std::unique_ptr<Watchdog> watchdog;
    if (options.headless())
        watchdog = std::make_unique<Watchdog>(options.timeoutSeconds);
    quitOnSignals(app); // the child server and the logs are cleaned up on the way out

    QTemporaryDir throwawayProfile;
    if (!options.profileDir.isEmpty())
        useProfile(options.profileDir);
    else if (options.headless())
        useProfile(throwawayProfile.path());
    const bool throwaway = options.profileDir.isEmpty() && options.headless();

    // The journal: a file in the application's data directory, shown live in the main window.
    const QString dataDir = QStandardPaths::writableLocation(QStandardPaths::AppDataLocation);
    QDir().mkpath(dataDir);
    DemoContext context;
    context.throwawayProfile = throwaway;
    context.journalPath = QDir(dataDir).filePath(QStringLiteral("gui_helpers_demo.journal"));
    gJournal = new Journaller(VxString(QFile::encodeName(context.journalPath).toStdString()), true, JLL_DEBUG);
    gJournal->setDebugLevel(static_cast<JournalLogLevel>(options.verbosity), false);
    gJournal->writeFileHeader();
    JournalView::installForwarder();

    // Usage statistics: one instance for the whole run, a log per run.
    context.usage = DemoUsageStatistics::create();
    context.usage->setKeepSentLogs(30); // what was sent stays visible for a month
    if (context.usage->firstTimeRunningUsage() && !options.headless()) {
        // Asked once, as a real application does; storing a yes starts this run's log.
        const QMessageBox::StandardButton answer = QMessageBox::question(nullptr, QObject::tr("Usage statistics"),
            QObject::tr("May %1 record anonymous usage statistics and send them to the update server once a day?").arg(QCoreApplication::applicationName()));
        context.usage->setAllowLogFilesForUser(answer == QMessageBox::Yes);
    } else {
        context.usage->recreateLogFile();
    }

    // The update server and the upload endpoint: our own on 127.0.0.1 unless named.
    Watchdog::setStage("starting the servers");
    auto services = std::make_unique<DemoServices>(options);
    std::unique_ptr<DemoHost> host;
    std::unique_ptr<AutoUpdate> autoUpdate;
    if (services->start()) {
        context.services = services.get();
        host = std::make_unique<DemoHost>(services->updateServerOptions());
        autoUpdate = std::make_unique<AutoUpdate>(host.get());
        autoUpdate->setAllowMessageBoxes(!options.headless());
        QStringList keys = options.trustedKeys;
        if (!services->demoPublicKey().isEmpty())
            keys.prepend(services->demoPublicKey());
        autoUpdate->setTrustedUpdateKeys(keys);
        context.host = host.get();
        context.autoUpdate = autoUpdate.get();
    } else if (options.headless()) {
        std::fprintf(stderr, "gui_helpers_demo: FAILED: %s\n", qPrintable(services->errorString()));
    } else {
        QMessageBox::warning(nullptr,
            QObject::tr("Servers not available"),
            QObject::tr("%1\n\nUpdates, usage sending and uploads are not available in this run.").arg(services->errorString()));
    }

    int result = 1;
    if (options.headless()) {
        if (context.services)
            result = ScreenshotRun(context, options.screenshotDir).exec();
    } else {
        MainWindow window(context);
        window.show();
        result = app.exec();
    }

    // Let waiting server requests give up before their connections go.
    if (autoUpdate)
        autoUpdate->terminate();
    autoUpdate.reset();
    DemoUsageStatistics::log(context.usage->closingEvent());
    AbstractUsageStatisticsSingleton::cleanup();
    services.reset();
    JWRITE("demo ends with exit code " << result);
    JournalView::removeForwarder();
    delete gJournal;
    gJournal = nullptr;
    return result;
}
