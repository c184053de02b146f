// SPDX-License-Identifier: MIT
#include "journaller.h"

#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <fcntl.h>
#include <functional>
#include <thread>
#include <unistd.h>

namespace
{
QByteArray readAll(const QString& path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

// The file a journal at `level`, without echo to stderr, wrote while `body` ran and it closed.
QByteArray journalOf(JournalLogLevel level, const std::function<void(Journaller&)>& body)
{
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("j.log"));
    {
        Journaller j(path.toStdString(), true, level);
        j.setDebugLevel(JLL_DISABLE, false);
        body(j);
    }
    return readAll(path);
}

// What is written to file descriptor 2 while `body` runs, through the file at `path`.
QByteArray stderrOf(const QString& path, const std::function<void()>& body)
{
    fflush(stderr);
    const int saved = dup(2);
    const int fd = open(path.toLocal8Bit().constData(), O_CREAT | O_TRUNC | O_WRONLY, 0600);
    dup2(fd, 2);
    ::close(fd);
    body();
    fflush(stderr);
    dup2(saved, 2);
    ::close(saved);
    return readAll(path);
}

// A message body with the layout's prefix stripped: "<level text><message>".
QList<QByteArray> bodies(const QByteArray& text)
{
    static const QRegularExpression prefix(QStringLiteral("^ *-?\\d+\\.\\d{3} <[0-9A-F]{8}> "));
    QList<QByteArray> out;
    for (const QByteArray& line : text.split('\n')) {
        const QString s = QString::fromUtf8(line);
        const auto m = prefix.match(s);
        out << (m.hasMatch() ? s.mid(m.capturedLength()).toUtf8() : line);
    }
    if (!out.isEmpty() && out.last().isEmpty())
        out.removeLast();
    return out;
}

struct RecordingLogger : AbstractAdditionalLogger {
    bool wantsLevel(JournalLogLevel level) const override { return level >= JLL_ERROR; }
    void log(JournalLogLevel level, int line, const char* function, const std::string& message) override
    {
        entries << QStringLiteral("%1|%2|%3").arg(level).arg(QString::fromLatin1(function)).arg(QString::fromStdString(message));
        lastLine = line;
    }
    QStringList entries;
    int lastLine = 0;
};

void logFromHere()
{
    JERROR("went wrong: " << 42 << ' ' << QStringLiteral("qt") << ' ' << true);
}
} // namespace

class JournallerTest : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void lineLayout()
    {
        const QByteArray text = journalOf(JLL_TRACE, [](Journaller& j) {
            j.setTag("tagged ");
            j.log(JLL_DEBUG, "hello world");
        });
        const QRegularExpression layout(QStringLiteral("^( {0,9}\\d{1,10})\\.(\\d{3}) <([0-9A-F]{8})> tagged \\[DEBUG\\] hello world\\n$"));
        const auto m = layout.match(QString::fromUtf8(text));
        QVERIFY2(m.hasMatch(), text.constData());
        QCOMPARE(m.captured(1).size(), 10);
        QVERIFY(qAbs(m.captured(1).trimmed().toLongLong() - QDateTime::currentSecsSinceEpoch()) < 100);
    }

    void thresholds_data()
    {
        QTest::addColumn<int>("logLevel");
        QTest::addColumn<int>("debugLevel");
        QTest::addColumn<int>("level");
        QTest::addColumn<bool>("toFile");
        QTest::addColumn<bool>("toStderr");
        QTest::newRow("below both") << 3 << 3 << 2 << false << false;
        QTest::newRow("below log, above debug") << 3 << 1 << 2 << false << true;
        QTest::newRow("exactly at debug level is not echoed") << 4 << 2 << 2 << false << false;
        QTest::newRow("at log level goes to file") << 2 << 6 << 2 << true << false;
        QTest::newRow("above both") << 1 << 1 << 3 << true << true;
        QTest::newRow("write level with thresholds at 5") << 5 << 5 << 5 << true << false;
        QTest::newRow("write level, debug below") << 5 << 4 << 5 << true << true;
        QTest::newRow("silenced") << 6 << 6 << 5 << false << false;
    }
    void thresholds()
    {
        QFETCH(int, logLevel);
        QFETCH(int, debugLevel);
        QFETCH(int, level);
        QTemporaryDir dir;
        QByteArray text;
        const QByteArray echoed = stderrOf(dir.filePath(QStringLiteral("stderr.txt")), [&] {
            text = journalOf(JLL_TRACE, [&](Journaller& j) {
                j.setLogLevel(JournalLogLevel(logLevel), false);
                j.setDebugLevel(JournalLogLevel(debugLevel), false);
                j.log(JournalLogLevel(level), "probe");
            });
        });
        QTEST(echoed.contains("probe"), "toStderr");
        QTEST(text.contains("probe"), "toFile");
    }

    void lineBreaksFollowTheMessages()
    {
        const QList<QByteArray> lines = journalOf(JLL_DEBUG, [](Journaller& j) {
            j.setTag("t ");
            j.writeMessage("pending ");
            j.log(JLL_ERROR, "joined");
            j.log(JLL_ERROR, "alone");
        }).split('\n');
        QCOMPARE(lines.size(), 3);
        QVERIFY(lines[0].startsWith("pending "));
        QVERIFY(lines[0].endsWith("t [ERROR] joined"));
        QVERIFY(!lines[1].startsWith("pending"));
        QVERIFY(lines[1].endsWith("> t [ERROR] alone"));
        // A message ending in a line break completes its line early.
        const QList<QByteArray> early = bodies(journalOf(JLL_DEBUG, [](Journaller& j) {
            j.log(JLL_ERROR, "first\n");
            j.log(JLL_ERROR, "second");
        }));
        QCOMPARE(early, (QList<QByteArray> {"[ERROR] first", "", "[ERROR] second"}));
    }

    void flushLevelPutsLinesOnDiskAtOnce()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("j.log"));
        Journaller j(path.toStdString(), true, JLL_TRACE);
        j.setDebugLevel(JLL_DISABLE, false);
        j.log(JLL_DEBUG, "buffered");
        QVERIFY(!readAll(path).contains("buffered"));
        j.log(JLL_ALERT, "alert");
        QVERIFY(readAll(path).contains("buffered\n") && readAll(path).contains("alert\n"));
        j.log(JLL_TRACE, "trace");
        j.flush();
        QVERIFY(readAll(path).contains("trace\n"));
    }

    void existingFileIsContinuedUnlessPurged()
    {
        QTemporaryDir dir;
        const std::string path = dir.filePath(QStringLiteral("j.log")).toStdString();
        for (const auto& [purge, message] : {std::pair {true, "one"}, {false, "two"}})
            Journaller(path, purge, JLL_WRITE).log(JLL_WRITE, message);
        QVERIFY(readAll(QString::fromStdString(path)).contains("one") && readAll(QString::fromStdString(path)).contains("two"));
        Journaller(path, true, JLL_WRITE).log(JLL_WRITE, "three");
        QVERIFY(!readAll(QString::fromStdString(path)).contains("one"));
    }

    void levelNoticesAndCallstackBanners()
    {
        const QList<QByteArray> b = bodies(journalOf(JLL_DEBUG, [](Journaller& j) {
            j.setDebugLevel(JLL_DISABLE);
            j.setLogLevel(JLL_ERROR);
            j.setFlushLevel(JLL_FATAL);
            j.writeCallstack(JLL_ERROR);
        }));
        QVERIFY(b.size() >= 6);
        QVERIFY(b[0].startsWith("[WRITE] setDebugLevel Debugger output log level set to"));
        QCOMPARE(b[1], QByteArray("[WRITE] setLogLevel Log level set to [ERROR] "));
        QCOMPARE(b[2], QByteArray("[WRITE] setFlushLevel Flush level switched to [FATAL] "));
        QCOMPARE(b[3], QByteArray("[ERROR] ************ Dump Begin ************"));
        QCOMPARE(b.last(), QByteArray("[ERROR] ************* Dump End *************"));
    }

    void moveLogFile()
    {
        QTemporaryDir dir;
        const QString first = dir.filePath(QStringLiteral("first.log"));
        const QString second = dir.filePath(QStringLiteral("second.log"));
        Journaller j(first.toStdString(), true, JLL_DEBUG);
        j.setDebugLevel(JLL_DISABLE, false);
        QVERIFY(!j.moveLogFile(dir.filePath(QStringLiteral("missing/dir/x.log")).toStdString(), true));
        j.log(JLL_ERROR, "still here");
        QVERIFY(j.moveLogFile(second.toStdString(), true));
        j.log(JLL_ERROR, "moved");
        j.flush();
        const QByteArray a = readAll(first);
        for (const QByteArray& piece : {QByteArray("Could not switch to new log location"), QByteArray("still here"), "Switching to file " + second.toUtf8()})
            QVERIFY2(a.contains(piece), piece.constData());
        const QByteArray b = readAll(second);
        QVERIFY(b.contains("writeFileHeader Journaller logging to " + second.toUtf8() + " on ") && b.contains("moved"));
        QVERIFY(!a.contains("moved"));
        QCOMPARE(QString::fromStdString(j.filename()), second);
    }

    void moveLogsSharesTheOtherFile()
    {
        QTemporaryDir dir;
        const QString b = dir.filePath(QStringLiteral("b.log"));
        Journaller ja(dir.filePath(QStringLiteral("a.log")).toStdString(), true, JLL_DEBUG);
        Journaller jb(b.toStdString(), true, JLL_DEBUG);
        ja.setDebugLevel(JLL_DISABLE, false);
        jb.setDebugLevel(JLL_DISABLE, false);
        QVERIFY(ja.moveLogs(&jb, false));
        ja.log(JLL_ERROR, "from a");
        jb.log(JLL_ERROR, "from b");
        ja.flush();
        jb.flush();
        QVERIFY(readAll(b).contains("from a") && readAll(b).contains("from b"));
    }

    void callSiteMacroPrefixesFunctionAndFeedsAdditionalLogger()
    {
        RecordingLogger extra;
        const QByteArray text = journalOf(JLL_DEBUG, [&](Journaller& j) {
            gJournal = &j;
            Journaller::setAdditionalLogger(&extra);
            logFromHere();
            JDEBUG("not for the extra logger");
            Journaller::setAdditionalLogger(nullptr);
            gJournal = nullptr;
        });
        QVERIFY(text.contains("[ERROR] logFromHere went wrong: 42 qt true\n"));
        QCOMPARE(extra.entries, QStringList {QStringLiteral("3|logFromHere|logFromHere went wrong: 42 qt true")});
        QVERIFY(extra.lastLine > 0);
        // Without a journal the macro does nothing and does not crash.
        logFromHere();
    }

    void tagFromFilename_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<QString>("tag");
        QTest::newRow("path and extension") << "/var/log/app.log" << QStringLiteral("app ");
        QTest::newRow("no extension") << "plain" << QStringLiteral("plain ");
        QTest::newRow("two extensions") << "a/b.tar.gz" << QStringLiteral("b ");
        QTest::newRow("hidden file") << "/x/.hidden" << QStringLiteral("");
        QTest::newRow("empty") << "" << QStringLiteral("");
    }
    void tagFromFilename()
    {
        QFETCH(QString, file);
        QTEST(QString::fromStdString(Journaller::tagFromFilename(file.toStdString())), "tag");
    }

    void concurrentThreadsKeepLinesIntact()
    {
        const int perThread = 100000;
        const QList<QByteArray> lines = journalOf(JLL_DEBUG, [](Journaller& j) {
            auto writer = [&j](char name) {
                for (int i = 0; i < perThread; ++i)
                    j.log(JLL_DEBUG, std::string(1, name) + " message number " + std::to_string(i) + " end");
            };
            std::thread t1(writer, 'A');
            std::thread t2(writer, 'B');
            t1.join();
            t2.join();
        }).split('\n');
        QCOMPARE(lines.size(), 2 * perThread + 1);
        const QRegularExpression shape(QStringLiteral("^ *\\d+\\.\\d{3} <[0-9A-F]{8}> \\[DEBUG\\] ([AB]) message number (\\d+) end$"));
        int next[2] = {0, 0};
        for (int i = 0; i < lines.size() - 1; ++i) {
            const auto m = shape.match(QString::fromLatin1(lines[i]));
            QVERIFY2(m.hasMatch(), lines[i].constData());
            const int who = m.captured(1) == QLatin1String("A") ? 0 : 1;
            QCOMPARE(m.captured(2).toInt(), next[who]++); // each thread's lines in its own order
        }
        QCOMPARE(next[0], perThread);
        QCOMPARE(next[1], perThread);
    }
};

QTEST_GUILESS_MAIN(JournallerTest)
#include "journallertest.moc"
