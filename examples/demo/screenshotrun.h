// SPDX-License-Identifier: MIT
//
// The headless run: exercise every part once, render the windows to PNG files, report.
#pragma once

#include <QString>
#include <QStringList>

class MainWindow;
class QWidget;
struct DemoContext;

/**
 * Runs the demo's parts without a user and writes about-box.png, update-window.png and
 * main-window.png to a directory. Prints one line per step on standard output and the
 * failures on standard error. The caller bounds the run in time (Watchdog).
 */
class ScreenshotRun
{
public:
    ScreenshotRun(DemoContext& context, const QString& directory);

    /** 0 when every step worked, 1 otherwise. */
    int exec();

private:
    void checkForUpdates(MainWindow& window);
    void sendUsageData();
    void upload(MainWindow& window);
    void report(const QString& line);
    void failure(const QString& line);
    bool save(QWidget* widget, const QString& fileName);

    DemoContext& m_context;
    QString m_directory;
    QStringList m_failures;
};
