// SPDX-License-Identifier: MIT
#include "screenshotrun.h"

#include "aboutbox.h"
#include "mainwindow.h"
#include "watchdog.h"

#include <QApplication>
#include <QDir>
#include <QEventLoop>
#include <QImage>
#include <QPixmap>
#include <QTimer>
#include <QWidget>

#include <cstdio>

namespace
{

/** Lets queued work (layouts, queued signals) run for a moment. */
void settle(int ms = 50)
{
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
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
    report(QStringLiteral("screenshot: %1 (%2x%3)").arg(path).arg(pixmap.width()).arg(pixmap.height()));
    return true;
}

int ScreenshotRun::exec()
{
    report(QStringLiteral("%1 %2: headless run").arg(QCoreApplication::applicationName(), QCoreApplication::applicationVersion()));
    if (!QDir().mkpath(m_directory)) {
        failure(QStringLiteral("cannot create %1").arg(m_directory));
        return 1;
    }

    Watchdog::setStage("rendering the windows");
    MainWindow window(m_context);
    AboutBox* about = window.createAboutBox(&window);
    save(about, QStringLiteral("about-box.png"));
    about->hide();
    save(&window, QStringLiteral("main-window.png"));

    if (!m_failures.isEmpty()) {
        report(QStringLiteral("result: %1 step(s) failed").arg(m_failures.size()));
        return 1;
    }
    report(QStringLiteral("result: OK"));
    return 0;
}
