// SPDX-License-Identifier: MIT
#include "screenshotrun.h"

#include "aboutbox.h"
#include "demoservices.h"
#include "demousagestatistics.h"
#include "localhttpserver.h"
#include "mainwindow.h"
#include "watchdog.h"

#include <QApplication>
#include <QDate>
#include <QDeadlineTimer>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QPixmap>
#include <QSettings>
#include <QStandardPaths>
#include <QTimer>
#include <QWidget>

#include <algorithm>
#include <cstdio>
#include <functional>

namespace
{

/** Runs the event loop until @p done() or the time-out; whether @p done() became true. */
bool waitUntil(const std::function<bool()>& done, int timeoutMs)
{
    const QDeadlineTimer deadline(timeoutMs);
    while (!done()) {
        if (deadline.hasExpired())
            return false;
        QEventLoop loop;
        QTimer::singleShot(20, &loop, &QEventLoop::quit);
        loop.exec();
    }
    return true;
}

/** Lets queued work (layouts, queued signals) run for a moment. */
void settle(int ms = 100)
{
    waitUntil(
        [] {
            return false;
        },
        ms);
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
    const bool inTime = waitUntil(
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

    MainWindow window(m_context);
    upload(window);

    Watchdog::setStage("rendering the windows");
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
