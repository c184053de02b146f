// SPDX-License-Identifier: MIT
#include "demooptions.h"

#include "gui_helpers_config.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QUrl>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace
{

[[noreturn]] void badOption(const QString& message)
{
    std::fprintf(stderr, "gui_helpers_demo: %s (see --help)\n", qPrintable(message));
    std::exit(2);
}

int intValue(const QCommandLineParser& parser, const QString& name, int minimum, int maximum)
{
    bool ok = false;
    const qlonglong value = parser.value(name).toLongLong(&ok);
    if (!ok || value < minimum || value > maximum)
        badOption(QStringLiteral("--%1 must be a whole number from %2 to %3, not \"%4\"").arg(name).arg(minimum).arg(maximum).arg(parser.value(name)));
    return static_cast<int>(value);
}

} // namespace

bool wantsScreenshots(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--") == 0)
            break;
        if (std::strcmp(argv[i], "--screenshots") == 0 || std::strncmp(argv[i], "--screenshots=", 14) == 0)
            return true;
    }
    return false;
}

DemoOptions parseDemoOptions()
{
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Demo host application of libgui_helpers: about box, automatic updates, usage statistics, tus upload, path validators, grid "
                       "splitter and serial ports.\n\n"
                       "Without --server it starts the reference update server (gui_helpers_update_server) on 127.0.0.1 with a demo catalogue and a "
                       "certificate authority made for this run, which only this process trusts; installers and a tus upload endpoint are served "
                       "over local HTTP. Everything works offline.\n\n"
                       "--screenshots DIR checks for updates, sends the usage data, uploads a file, renders the about box, the update window, the "
                       "usage-data dialog and the main window to PNG files in DIR, prints what it did and exits (0 on success). Without a display it uses the offscreen "
                       "platform."));
    const QCommandLineOption helpOption = parser.addHelpOption();
    const QCommandLineOption versionOption = parser.addVersionOption();
    const QList<QCommandLineOption> options = {
        {QStringLiteral("screenshots"),
            QStringLiteral("Headless run: write about-box.png, update-window.png, usage-data.png and main-window.png to <dir>, then exit."),
            QStringLiteral("dir")},
        {QStringLiteral("server"), QStringLiteral("Use the update server at <host> instead of the embedded one."), QStringLiteral("host")},
        {QStringLiteral("port"),
            QStringLiteral("TCP port of --server (default %1).").arg(GUI_HELPERS_DEFAULT_UPDATE_PORT),
            QStringLiteral("port"),
            QString::number(GUI_HELPERS_DEFAULT_UPDATE_PORT)},
        {QStringLiteral("ca-file"),
            QStringLiteral("Also trust the certificate authorities in this PEM file (for a --server whose certificate the system does not trust)."),
            QStringLiteral("file")},
        {QStringLiteral("tus-url"), QStringLiteral("Upload to this tus 1.0.0 creation URL instead of the embedded endpoint."), QStringLiteral("url")},
        {QStringLiteral("profile"),
            QStringLiteral("Keep settings, usage logs and the journal under <dir> (default: the usual per-user locations; a throwaway "
                           "directory for --screenshots)."),
            QStringLiteral("dir")},
        {QStringLiteral("update-server-program"),
            QStringLiteral("The gui_helpers_update_server program to start (default: next to this program, then the one built with it)."),
            QStringLiteral("file")},
        {QStringLiteral("timeout"),
            QStringLiteral("Give up a --screenshots run after <seconds> (default 60)."),
            QStringLiteral("seconds"),
            QStringLiteral("60")},
        {QStringLiteral("verbose"), QStringLiteral("Echo the journal to standard error.")},
        {QStringLiteral("trusted-key"),
            QStringLiteral("Also accept installers signed with this minisign public key (the second line of its .pub file); may be repeated."),
            QStringLiteral("key")},
    };
    parser.addOptions(options);
    if (!parser.parse(QCoreApplication::arguments()))
        badOption(parser.errorText());
    if (parser.isSet(helpOption))
        parser.showHelp(0);
    if (parser.isSet(versionOption))
        parser.showVersion();
    if (!parser.positionalArguments().isEmpty())
        badOption(QStringLiteral("unexpected argument \"%1\"").arg(parser.positionalArguments().constFirst()));

    DemoOptions result;
    result.screenshotDir = parser.value(QStringLiteral("screenshots"));
    if (parser.isSet(QStringLiteral("screenshots")) && result.screenshotDir.isEmpty())
        badOption(QStringLiteral("--screenshots needs a directory"));
    result.serverHost = parser.value(QStringLiteral("server"));
    if (parser.isSet(QStringLiteral("server")) && result.serverHost.isEmpty())
        badOption(QStringLiteral("--server needs a host name"));
    result.serverPort = intValue(parser, QStringLiteral("port"), 1, 65535);
    if (parser.isSet(QStringLiteral("port")) && !parser.isSet(QStringLiteral("server")))
        badOption(QStringLiteral("--port belongs to --server"));
    result.caFile = parser.value(QStringLiteral("ca-file"));
    result.tusUrl = parser.value(QStringLiteral("tus-url"));
    if (parser.isSet(QStringLiteral("tus-url"))) {
        const QUrl url(result.tusUrl, QUrl::StrictMode);
        if (!url.isValid() || (url.scheme() != QLatin1String("http") && url.scheme() != QLatin1String("https")) || url.host().isEmpty())
            badOption(QStringLiteral("--tus-url must be an http or https URL, not \"%1\"").arg(result.tusUrl));
    }
    result.profileDir = parser.value(QStringLiteral("profile"));
    result.updateServerProgram = parser.value(QStringLiteral("update-server-program"));
    result.timeoutSeconds = intValue(parser, QStringLiteral("timeout"), 5, 3600);
    result.verbosity = parser.isSet(QStringLiteral("verbose")) ? 0 : 6;
    result.trustedKeys = parser.values(QStringLiteral("trusted-key"));
    return result;
}
