// SPDX-License-Identifier: MIT
//
// The demo's headless run, as a new user starts it: a real process, real servers on
// loopback, real PNG files.
#include "testhelpers.h"

#include <QDir>
#include <QFileInfo>
#include <QImage>
#include <QProcess>
#include <QSet>
#include <QTemporaryDir>
#include <QTest>

class DemoHeadlessTest : public QObject
{
    Q_OBJECT

private:
    struct Run {
        int exitCode = -1;
        QString out;
        QString err;
    };

    static Run runDemo(const QStringList& arguments, int timeoutMs = 90000)
    {
        QProcess demo;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        // As on a machine without a display: the demo must pick the offscreen platform itself.
        environment.remove(QStringLiteral("QT_QPA_PLATFORM"));
        environment.remove(QStringLiteral("DISPLAY"));
        environment.remove(QStringLiteral("WAYLAND_DISPLAY"));
        demo.setProcessEnvironment(environment);
        demo.start(QStringLiteral(DEMO_PROGRAM), arguments);
        Run run;
        if (!demo.waitForFinished(timeoutMs)) {
            demo.kill();
            demo.waitForFinished(2000);
            run.err = QStringLiteral("did not finish");
            return run;
        }
        run.exitCode = demo.exitStatus() == QProcess::NormalExit ? demo.exitCode() : -1;
        run.out = QString::fromUtf8(demo.readAllStandardOutput());
        run.err = QString::fromUtf8(demo.readAllStandardError());
        return run;
    }

    QTemporaryDir m_dir;
    QTemporaryDir m_profile;
    Run m_run;

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        QVERIFY(m_profile.isValid());
        m_run = runDemo({QStringLiteral("--screenshots"), m_dir.path(), QStringLiteral("--profile"), m_profile.path()});
    }

    void headlessRunSucceeds()
    {
        QVERIFY2(m_run.exitCode == 0, qPrintable(m_run.out + m_run.err));
        QVERIFY2(m_run.out.contains(QLatin1String("result: OK")), qPrintable(m_run.out));
    }

    void screenshotIsWritten_data()
    {
        QTest::addColumn<QString>("file");
        QTest::newRow("about box") << QStringLiteral("about-box.png");
        QTest::newRow("update window") << QStringLiteral("update-window.png");
        QTest::newRow("main window") << QStringLiteral("main-window.png");
    }
    void screenshotIsWritten()
    {
        QFETCH(QString, file);
        const QImage image(m_dir.filePath(file));
        QVERIFY2(!image.isNull(), qPrintable(file));
        QVERIFY(image.width() >= 400 && image.height() >= 300);
        // Widgets were drawn: text, frames and icons give many colours, an empty window one.
        QSet<QRgb> colours;
        for (int y = 0; y < image.height(); y += 3)
            for (int x = 0; x < image.width(); x += 3)
                colours.insert(image.pixel(x, y));
        QVERIFY2(colours.size() >= 16, qPrintable(QString::number(colours.size())));
        QVERIFY2(m_run.out.contains(m_dir.filePath(file)), qPrintable(m_run.out));
    }

    void outputReports_data()
    {
        QTest::addColumn<QString>("line");
        QTest::newRow("releases of the demo catalogue")
            << QStringLiteral("update check: 5 releases found: 2020.3.1 (Stable), 2021.0.2 (Stable), 2021.1.0 (Stable), 2021.1.2 (Patch), 2022.0.0 (Beta)");
        QTest::newRow("newer version") << QStringLiteral("newer version: yes, 2021.1.2 is newer than the running 2021.1.0");
        QTest::newRow("installer on the local web server") << QStringLiteral("installer: http://127.0.0.1:");
        // The controller keeps the smallest label of each firmware list.
        QTest::newRow("firmware of both demo devices") << QStringLiteral("firmware: M-0007000200000000 -> 4.2.0, 03300000 -> 1.7.3");
        QTest::newRow("usage data accepted") << QStringLiteral("usage data: sent, the server accepted the finished logs; the server's inbox");
        QTest::newRow("upload arrived intact") << QStringLiteral("the endpoint's copy matches");
    }
    void outputReports()
    {
        QFETCH(QString, line);
        QVERIFY2(m_run.out.contains(line), qPrintable(m_run.out));
    }

    void usageLogReachedTheServerInbox()
    {
        // The log of the finished session, as the reference server stored it.
        const QDir inbox(m_profile.filePath(QStringLiteral("data/Veltrax/GuiHelpersDemo/server-inbox")));
        const QStringList logs = inbox.entryList({QStringLiteral("GuiHelpersDemo_*.log")}, QDir::Files);
        QCOMPARE(logs.size(), 1);
        QFile log(inbox.filePath(logs.constFirst()));
        QVERIFY(log.open(QIODevice::ReadOnly));
        const QByteArray text = log.readAll();
        QVERIFY2(text.startsWith("Version 2021.1.0 build 6323") && text.contains("\nAnonRefID: ") && text.contains(" Screenshots requested\n")
                && text.contains(" Application closed\n"),
            text.constData());
    }

    void failingRunExplains_data()
    {
        QTest::addColumn<QString>("arguments"); // %1: an empty directory for screenshots
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("message");
        QTest::addColumn<bool>("rendered"); // the windows are still drawn and a result reported

        // A "server" that never reports its port.
        const QString silent = m_profile.filePath(QStringLiteral("silent-server"));
        QVERIFY(writeFile(silent, "#!/bin/sh\nexec sleep 60\n"));
        QVERIFY(QFile::setPermissions(silent, QFile::permissions(silent) | QFileDevice::ExeOwner));

        QTest::newRow("missing update server program")
            << "--screenshots %1 --update-server-program /nonexistent/server" << 1 << "FAILED: /nonexistent/server is not an executable program" << false;
        QTest::newRow("unreachable update server") << "--screenshots %1 --server 127.0.0.1 --port " + QString::number(closedLoopbackPort()) << 1
                                                   << "gave no releases" << true;
        QTest::newRow("hanging start cut off") << "--screenshots %1 --update-server-program " + silent + " --timeout 5" << 3
                                               << "gave up after 5 s while starting gui_helpers_update_server" << false;
        QTest::newRow("unknown option") << "--frobnicate" << 2 << "frobnicate" << false;
        QTest::newRow("port without server") << "--port 443" << 2 << "--port belongs to --server" << false;
        QTest::newRow("port out of range") << "--server x --port 70000" << 2 << "--port must be" << false;
        QTest::newRow("tus url not http") << "--tus-url ftp://h/files" << 2 << "--tus-url must be" << false;
        QTest::newRow("stray argument") << "extra" << 2 << "unexpected argument" << false;
        QTest::newRow("interactive without display") << "" << 2 << "--screenshots" << false;
    }
    void failingRunExplains()
    {
        QFETCH(QString, arguments);
        QFETCH(int, exitCode);
        QFETCH(QString, message);
        QFETCH(bool, rendered);
        QTemporaryDir shots;
        const Run run = runDemo(arguments.replace(QLatin1String("%1"), shots.path()).split(QLatin1Char(' '), Qt::SkipEmptyParts), 60000);
        QCOMPARE(run.exitCode, exitCode);
        QVERIFY2(run.err.contains(message), qPrintable(run.err));
        if (exitCode == 2) // a usage error is one line
            QCOMPARE(run.err.trimmed().count(QLatin1Char('\n')), 0);
        if (rendered) {
            QVERIFY2(run.out.contains(QLatin1String("result: ")), qPrintable(run.out));
            QVERIFY(QFileInfo::exists(shots.filePath(QStringLiteral("update-window.png"))));
        }
    }
};

QTEST_GUILESS_MAIN(DemoHeadlessTest)
#include "demoheadlesstest.moc"
