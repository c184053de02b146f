// SPDX-License-Identifier: MIT
//
// The demo's headless run, as a new user starts it: a real process, real servers on
// loopback, real PNG files.
#include <QDir>
#include <QFileInfo>
#include <QHostAddress>
#include <QImage>
#include <QProcess>
#include <QSet>
#include <QTcpServer>
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

    void missingUpdateServerProgramFailsClearly()
    {
        QTemporaryDir shots;
        const Run run
            = runDemo({QStringLiteral("--screenshots"), shots.path(), QStringLiteral("--update-server-program"), QStringLiteral("/nonexistent/server")}, 30000);
        QCOMPARE(run.exitCode, 1);
        QVERIFY2(run.err.contains(QLatin1String("FAILED: /nonexistent/server is not an executable program")), qPrintable(run.err));
    }

    void unreachableUpdateServerIsReported()
    {
        // A port on which nothing listens: the check and the usage sending must fail, not hang.
        quint16 port = 0;
        {
            QTcpServer probe;
            QVERIFY(probe.listen(QHostAddress::LocalHost, 0));
            port = probe.serverPort();
        }
        QTemporaryDir shots;
        const Run run = runDemo({QStringLiteral("--screenshots"),
                                    shots.path(),
                                    QStringLiteral("--server"),
                                    QStringLiteral("127.0.0.1"),
                                    QStringLiteral("--port"),
                                    QString::number(port)},
            60000);
        QCOMPARE(run.exitCode, 1);
        QVERIFY2(run.err.contains(QLatin1String("gave no releases")), qPrintable(run.err));
        QVERIFY2(run.out.contains(QLatin1String("result: ")), qPrintable(run.out));
        // The windows are still rendered.
        QVERIFY(QFileInfo::exists(shots.filePath(QStringLiteral("update-window.png"))));
    }

    void aHangingStartIsCutOffByTheTimeout()
    {
        // A "server" that never reports its port.
        QTemporaryDir dir;
        const QString program = dir.filePath(QStringLiteral("silent-server"));
        QFile script(program);
        QVERIFY(script.open(QIODevice::WriteOnly));
        script.write("#!/bin/sh\nexec sleep 60\n");
        script.close();
        script.setPermissions(script.permissions() | QFileDevice::ExeOwner);
        const Run run = runDemo({QStringLiteral("--screenshots"),
                                    dir.filePath(QStringLiteral("shots")),
                                    QStringLiteral("--update-server-program"),
                                    program,
                                    QStringLiteral("--timeout"),
                                    QStringLiteral("5")},
            30000);
        QCOMPARE(run.exitCode, 3);
        QVERIFY2(run.err.contains(QLatin1String("gave up after 5 s while starting gui_helpers_update_server")), qPrintable(run.err));
    }

    void badOptionGivesOneLineAndExitCode2_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("message");
        QTest::newRow("unknown option") << QStringList {QStringLiteral("--frobnicate")} << QStringLiteral("frobnicate");
        QTest::newRow("port without server") << QStringList {QStringLiteral("--port"), QStringLiteral("443")} << QStringLiteral("--port belongs to --server");
        QTest::newRow("port out of range") << QStringList {QStringLiteral("--server"), QStringLiteral("x"), QStringLiteral("--port"), QStringLiteral("70000")}
                                           << QStringLiteral("--port must be");
        QTest::newRow("tus url not http") << QStringList {QStringLiteral("--tus-url"), QStringLiteral("ftp://h/files")} << QStringLiteral("--tus-url must be");
        QTest::newRow("stray argument") << QStringList {QStringLiteral("extra")} << QStringLiteral("unexpected argument");
    }
    void badOptionGivesOneLineAndExitCode2()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QString, message);
        const Run run = runDemo(arguments, 20000);
        QCOMPARE(run.exitCode, 2);
        QVERIFY2(run.err.contains(message), qPrintable(run.err));
        QCOMPARE(run.err.trimmed().count(QLatin1Char('\n')), 0);
    }

    void withoutDisplayTheInteractiveDemoExplainsAndStops()
    {
        const Run run = runDemo({}, 20000);
        QCOMPARE(run.exitCode, 2);
        QVERIFY2(run.err.contains(QLatin1String("--screenshots")), qPrintable(run.err));
    }
};

QTEST_GUILESS_MAIN(DemoHeadlessTest)
#include "demoheadlesstest.moc"
