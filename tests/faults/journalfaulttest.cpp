// SPDX-License-Identifier: MIT
// The journal's file disappearing, or refusing writes, while threads are
// logging.
#include "journaller.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

#include <atomic>
#include <thread>
#include <vector>

namespace {
QByteArray readAll(const QString &path) {
  QFile f(path);
  return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

// Lines of @p text that carry @p marker, each checked to be one whole line.
int countIntactLines(const QByteArray &text, const QByteArray &marker) {
  int n = 0;
  for (const QByteArray &line : text.split('\n')) {
    if (!line.contains(marker))
      continue;
    if (!line.contains("[DEBUG] ") || !line.endsWith(" end"))
      return -1;
    ++n;
  }
  return n;
}

// Logs from @p threads threads until told to stop, counting the lines written.
class Writers {
public:
  Writers(Journaller &journal, int threads) {
    for (int t = 0; t < threads; ++t) {
      m_threads.emplace_back([this, &journal, t] {
        for (int i = 0; !m_stop.load(); ++i) {
          journal.log(JLL_DEBUG, "writer " + std::to_string(t) + " line " +
                                     std::to_string(i) + " end");
          m_lines.fetch_add(1);
        }
        journal.cleanupThread();
      });
    }
  }
  ~Writers() { stop(); }
  int lines() const { return m_lines.load(); }
  void stop() {
    m_stop = true;
    for (auto &t : m_threads)
      if (t.joinable())
        t.join();
  }

private:
  std::vector<std::thread> m_threads;
  std::atomic<bool> m_stop{false};
  std::atomic<int> m_lines{0};
};
} // namespace

class JournalFaultTest : public QObject {
  Q_OBJECT
private Q_SLOTS:
  void fileRemovedWhileThreadsLogKeepsLoggingAndCanMove() {
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("j.log"));
    const QString next = dir.filePath(QStringLiteral("next.log"));
    Journaller journal(path.toStdString(), true, JLL_DEBUG);
    journal.setDebugLevel(JLL_DISABLE, false);
    journal.setFlushLevel(JLL_DEBUG,
                          false); // every line reaches the file at once
    {
      Writers writers(journal, 3);
      QTRY_VERIFY(writers.lines() > 200);
      QVERIFY(QFile::remove(path));
      const int atRemoval = writers.lines();
      QTRY_VERIFY(writers.lines() > atRemoval + 200);
      // A new file under the same name is not ours: nothing may land in it.
      QFile stranger(path);
      QVERIFY(stranger.open(QIODevice::WriteOnly));
      stranger.write("stranger\n");
      stranger.close();
      const int atStranger = writers.lines();
      QTRY_VERIFY(writers.lines() > atStranger + 200);

      QVERIFY(journal.moveLogFile(next.toStdString(), true, false));
      const int atMove = writers.lines();
      QTRY_VERIFY(writers.lines() > atMove + 200);
    }
    journal.flush();
    QCOMPARE(readAll(path), QByteArray("stranger\n"));
    const QByteArray moved = readAll(next);
    QVERIFY(moved.endsWith('\n'));
    QVERIFY(moved.count('\n') > 200);
    QCOMPARE(countIntactLines(moved, "writer "),
             moved.count('\n')); // every line whole
  }

  void directoryRemovedWhileLoggingRefusesMoveThere() {
    QTemporaryDir outer;
    const QString logDir = outer.filePath(QStringLiteral("logs"));
    QVERIFY(QDir().mkpath(logDir));
    Journaller journal((logDir + QStringLiteral("/j.log")).toStdString(), true,
                       JLL_DEBUG);
    journal.setDebugLevel(JLL_DISABLE, false);
    journal.log(JLL_DEBUG, "before removal end");
    QVERIFY(QDir(logDir).removeRecursively());

    journal.log(JLL_ALERT,
                "after removal end"); // flushed at once into the vanished file
    journal.flush();
    const std::string elsewhere =
        (logDir + QStringLiteral("/again.log")).toStdString();
    QVERIFY(!journal.moveLogFile(elsewhere, true, false));
    QVERIFY(!QFileInfo::exists(logDir));

    // Once the directory is back the journal moves there and writes whole lines
    // again.
    QVERIFY(QDir().mkpath(logDir));
    QVERIFY(journal.moveLogFile(elsewhere, true, false));
    journal.log(JLL_DEBUG, "writer back end");
    journal.flush();
    QCOMPARE(countIntactLines(readAll(QString::fromStdString(elsewhere)),
                              "writer back"),
             1);
  }

  void fullDeviceDropsLinesWithoutHarm() {
    // Every write to /dev/full fails with "no space left": lines are dropped,
    // the journal keeps running and can be moved to a usable file afterwards.
    if (!QFileInfo::exists(QStringLiteral("/dev/full")))
      QSKIP("no /dev/full here");
    QTemporaryDir dir;
    Journaller journal("/dev/full", false, JLL_DEBUG);
    journal.setDebugLevel(JLL_DISABLE, false);
    journal.setFlushLevel(JLL_DEBUG, false);
    {
      Writers writers(journal, 2);
      QTRY_VERIFY(writers.lines() > 500);
    }
    journal.flush();
    const QString next = dir.filePath(QStringLiteral("j.log"));
    QVERIFY(journal.moveLogFile(next.toStdString(), true, false));
    journal.log(JLL_DEBUG, "writer recovered end");
    journal.flush();
    QCOMPARE(countIntactLines(readAll(next), "writer recovered"), 1);
  }

  void journalsSharingAFullDeviceLogConcurrently() {
    // Two journals on one file (moveLogs) write under different line-buffer
    // locks; failing writes must still be safe to report from both at once.
    if (!QFileInfo::exists(QStringLiteral("/dev/full")))
      QSKIP("no /dev/full here");
    QTemporaryDir dir;
    Journaller first("/dev/full", false, JLL_DEBUG);
    Journaller second(dir.filePath(QStringLiteral("second.log")).toStdString(),
                      true, JLL_DEBUG);
    for (Journaller *j : {&first, &second}) {
      j->setDebugLevel(JLL_DISABLE, false);
      j->setFlushLevel(JLL_DEBUG, false);
    }
    QVERIFY(second.moveLogs(&first, false));
    {
      Writers a(first, 2);
      Writers b(second, 2);
      QTRY_VERIFY(a.lines() > 500 && b.lines() > 500);
    }
    first.flush();
    second.flush();
  }
};

QTEST_GUILESS_MAIN(JournalFaultTest)
#include "journalfaulttest.moc"
