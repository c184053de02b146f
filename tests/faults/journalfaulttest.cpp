// SPDX-License-Identifier: MIT
// The journal's file disappearing, or refusing writes, while threads are logging.
#include "journaller.h"
#include "testhelpers.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

namespace
{
/** Lines of @p text that carry @p marker, or -1 when one of them is not a whole line. */
int countIntactLines(const QByteArray& text, const QByteArray& marker)
{
    int n = 0;
    for (const QByteArray& line : text.split('\n')) {
        if (!line.contains(marker))
            continue;
        if (!line.contains("[DEBUG] ") || !line.endsWith(" end"))
            return -1;
        ++n;
    }
    return n;
}

/** A journal at @p path that writes no console copy and flushes every line at once. */
std::unique_ptr<Journaller> quietJournal(const QString& path, bool truncate)
{
    auto journal = std::make_unique<Journaller>(path.toStdString(), truncate, JLL_DEBUG);
    journal->setDebugLevel(JLL_DISABLE, false);
    journal->setFlushLevel(JLL_DEBUG, false);
    return journal;
}

/** Logs from @p threads threads until it goes, counting the lines written. */
class Writers
{
public:
    Writers(Journaller& journal, int threads)
    {
        for (int t = 0; t < threads; ++t) {
            m_threads.emplace_back([this, &journal, t] {
                for (int i = 0; !m_stop.load(); ++i) {
                    journal.log(JLL_DEBUG, "writer " + std::to_string(t) + " line " + std::to_string(i) + " end");
                    m_lines.fetch_add(1);
                }
                journal.cleanupThread();
            });
        }
    }
    ~Writers()
    {
        m_stop = true;
        for (auto& t : m_threads)
            t.join();
    }
    int lines() const { return m_lines.load(); }
    /** Waits until @p more lines more than now were written. */
    bool waitForMore(int more) const
    {
        const int target = lines() + more;
        return QTest::qWaitFor(
            [&] {
                return lines() > target;
            },
            5000);
    }

private:
    std::vector<std::thread> m_threads;
    std::atomic<bool> m_stop {false};
    std::atomic<int> m_lines {0};
};
} // namespace

class JournalFaultTest : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void fileRemovedWhileThreadsLogKeepsLoggingAndCanMove()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("j.log"));
        const QString next = dir.filePath(QStringLiteral("next.log"));
        const auto journal = quietJournal(path, true);
        {
            Writers writers(*journal, 3);
            QVERIFY(writers.waitForMore(200));
            QVERIFY(QFile::remove(path));
            QVERIFY(writers.waitForMore(200));
            // A new file under the same name is not ours: nothing may land in it.
            QVERIFY(writeFile(path, "stranger\n"));
            QVERIFY(writers.waitForMore(200));
            QVERIFY(journal->moveLogFile(next.toStdString(), true, false));
            QVERIFY(writers.waitForMore(200));
        }
        journal->flush();
        QCOMPARE(readFile(path), QByteArray("stranger\n"));
        const QByteArray moved = readFile(next);
        QVERIFY(moved.endsWith('\n') && moved.count('\n') > 200);
        QCOMPARE(countIntactLines(moved, "writer "), moved.count('\n')); // every line whole
    }

    // A move into a missing directory is refused: journallertest's moveLogFile.
    void directoryRemovedWhileLoggingCanBeMovedBackInto()
    {
        QTemporaryDir outer;
        const QString logDir = outer.filePath(QStringLiteral("logs"));
        QVERIFY(QDir().mkpath(logDir));
        Journaller journal((logDir + QStringLiteral("/j.log")).toStdString(), true, JLL_DEBUG);
        journal.setDebugLevel(JLL_DISABLE, false);
        journal.log(JLL_DEBUG, "before removal end");
        QVERIFY(QDir(logDir).removeRecursively());
        journal.log(JLL_ALERT, "after removal end"); // flushed at once into the vanished file
        journal.flush();
        QVERIFY(!QFileInfo::exists(logDir));

        // Once the directory is back the journal moves there and writes whole lines again.
        QVERIFY(QDir().mkpath(logDir));
        const std::string elsewhere = (logDir + QStringLiteral("/again.log")).toStdString();
        QVERIFY(journal.moveLogFile(elsewhere, true, false));
        journal.log(JLL_DEBUG, "writer back end");
        journal.flush();
        QCOMPARE(countIntactLines(readFile(QString::fromStdString(elsewhere)), "writer back"), 1);
    }

    void fullDeviceDropsLinesWithoutHarm()
    {
        // Every write to /dev/full fails with "no space left": lines are dropped, the journal
        // keeps running and can be moved to a usable file afterwards. A second journal on the
        // same file (moveLogs) writes under another line-buffer lock: failing writes must be
        // safe to report from both at once.
        if (!QFileInfo::exists(QStringLiteral("/dev/full")))
            QSKIP("no /dev/full here");
        QTemporaryDir dir;
        const auto journal = quietJournal(QStringLiteral("/dev/full"), false);
        const auto second = quietJournal(dir.filePath(QStringLiteral("second.log")), true);
        QVERIFY(second->moveLogs(journal.get(), false));
        {
            Writers a(*journal, 2);
            Writers b(*second, 2);
            QVERIFY(a.waitForMore(500) && b.waitForMore(500));
        }
        journal->flush();
        second->flush();
        const QString next = dir.filePath(QStringLiteral("j.log"));
        QVERIFY(journal->moveLogFile(next.toStdString(), true, false));
        journal->log(JLL_DEBUG, "writer recovered end");
        journal->flush();
        QCOMPARE(countIntactLines(readFile(next), "writer recovered"), 1);
    }
};

QTEST_GUILESS_MAIN(JournalFaultTest)
#include "journalfaulttest.moc"
