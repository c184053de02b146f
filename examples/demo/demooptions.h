// SPDX-License-Identifier: MIT
//
// Command line of the demo.
#pragma once

#include <QString>
#include <QStringList>

/** What the command line asked for. */
struct DemoOptions {
    /** Render the windows to PNG files in this directory and exit; empty for the interactive demo. */
    QString screenshotDir;
    /** A real update server; empty: start the embedded one. */
    QString serverHost;
    int serverPort = 0;
    /** Extra certificate authority (PEM) to trust for the real update server. */
    QString caFile;
    /** A real tus endpoint (creation URL); empty: the embedded one. */
    QString tusUrl;
    /** Keep settings, logs and the journal here; empty: the user's normal locations (a throwaway directory for screenshots). */
    QString profileDir;
    /** The reference update server program; empty: look next to the demo, then at the build-time path. */
    QString updateServerProgram;
    /** Upper bound of a screenshot run in seconds. */
    int timeoutSeconds = 60;
    /** Minisign public keys trusted for installers besides the demo's own. */
    QStringList trustedKeys;
    /** Echo the journal to standard error from this level on (6: not at all). */
    int verbosity = 6;

    bool headless() const { return !screenshotDir.isEmpty(); }
    bool embeddedUpdateServer() const { return serverHost.isEmpty(); }
    bool embeddedTus() const { return tusUrl.isEmpty(); }
};

/**
 * Parses the application's arguments. --help and --version print and exit 0; a bad option
 * prints one line to standard error and exits 2.
 */
DemoOptions parseDemoOptions();

/**
 * Whether the arguments ask for a screenshot run. Looked at before the application object
 * exists, because the platform (offscreen or a display) must be chosen before that.
 */
bool wantsScreenshots(int argc, char** argv);
