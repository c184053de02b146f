// SPDX-License-Identifier: MIT
//
// The connection's receive side without a socket: bytes fed in reads of any size come out
// as whole replies, in order, once each.
#include "settingsfile.h"
#include "testhelpers.h"
#include "updateserverreplyassembler_p.h"

#include <QTest>

namespace
{
QByteArray frame(const char* word, const std::string& which, int padding = 0)
{
    veltrax::SettingsFile tree;
    tree.setSetting("which", veltrax::Variant(which));
    if (padding > 0) {
        const QByteArray blob = randomBytes(padding, 1);
        tree.setSetting("blob", veltrax::Variant(veltrax::BinaryObject(blob.constData(), uint32_t(blob.size()))));
    }
    VxByteArray bytes;
    tree.serialize(bytes);
    return QByteArray(word) + ' ' + QByteArray::number(qulonglong(bytes.size())) + ' ' + QByteArray(bytes.data(), int(bytes.size()));
}

/** @p bytes in reads of @p size bytes. */
QByteArrayList pieces(const QByteArray& bytes, int size)
{
    QByteArrayList out;
    for (int at = 0; at < bytes.size(); at += size)
        out.append(bytes.mid(at, size));
    return out;
}

const QByteArray kReset = QByteArrayLiteral("<reset>");
} // namespace

class UpdateServerReplyAssemblerTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // Each read in `reads` is fed in turn (kReset calls reset()); `replies` lists the decided
    // replies as "WORD=which" ("!" for an invalid one).
    void readsBecomeReplies_data()
    {
        QTest::addColumn<QByteArrayList>("reads");
        QTest::addColumn<QByteArrayList>("replies");
        QTest::addColumn<int>("discarded");
        QTest::addColumn<qulonglong>("oversized");
        QTest::addColumn<int>("pending");

        const QByteArray a = frame("LIST", "a"), b = frame("LIST", "b"), big = frame("GE2T", "big", 1 << 20);
        QTest::newRow("one reply") << QByteArrayList {a} << QByteArrayList {"LIST=a"} << 0 << 0ull << 0;
        QTest::newRow("two replies in one read, in order") << QByteArrayList {a + b} << QByteArrayList {"LIST=a", "LIST=b"} << 0 << 0ull << 0;
        QTest::newRow("a byte at a time, decided once") << pieces(a, 1) << QByteArrayList {"LIST=a"} << 0 << 0ull << 0;
        QTest::newRow("large body in many reads") << pieces(big, 16384) << QByteArrayList {"GE2T=big"} << 0 << 0ull << 0;
        QTest::newRow("large body after a reply in the same read")
            << QByteArrayList {a + big.left(20)} + pieces(big.mid(20), 16384) << QByteArrayList {"LIST=a", "GE2T=big"} << 0 << 0ull << 0;
        QTest::newRow("a reply and the start of the next") << QByteArrayList {a + b.left(10)} << QByteArrayList {"LIST=a"} << 0 << 0ull << 10;
        // What each kind of reply is and takes (ERROR, ACK and the rest): updateserverresponseparsertest.
        QTest::newRow("bad body: only its header is taken") << QByteArrayList {"LIST 3 abc"} << QByteArrayList {"!"} << 0 << 0ull << 3;
        QTest::newRow("no reply word: discarded") << QByteArrayList {QByteArray(40, '?'), a} << QByteArrayList {"!", "LIST=a"} << 40 << 0ull << 0;
        QTest::newRow("short unknown front waits") << QByteArrayList {"?????"} << QByteArrayList {} << 0 << 0ull << 5;
        QTest::newRow("body over the limit: all dropped") << QByteArrayList {"LIST 99999999999 *"} << QByteArrayList {} << 0 << 99999999999ull << 0;
        QTest::newRow("reset forgets a half-read reply") << QByteArrayList {a.left(12), kReset, b} << QByteArrayList {"LIST=b"} << 0 << 0ull << 0;
    }
    void readsBecomeReplies()
    {
        QFETCH(QByteArrayList, reads);
        QFETCH(QByteArrayList, replies);
        QFETCH(int, discarded);
        QFETCH(qulonglong, oversized);
        QFETCH(int, pending);

        int progressReports = 0;
        ServerReplyAssembler assembler([&](size_t, size_t) {
            ++progressReports;
        });
        QByteArrayList decided;
        ServerReplyAssembler::Outcome total;
        for (const QByteArray& read : reads) {
            if (read == kReset) {
                assembler.reset();
                continue;
            }
            const ServerReplyAssembler::Outcome outcome = assembler.feed(read, [&](ServerResponseParser::ParseResult& result) {
                const veltrax::Variant which = result.settings->setting("which");
                if (result.status != ServerResponseParser::ParseResult::Complete)
                    decided.append("!");
                else
                    decided.append(result.command + '=' + QByteArray::fromStdString(which.empty() ? std::string() : which.toStdString()));
            });
            total.discarded += outcome.discarded;
            total.oversized += outcome.oversized;
        }
        QCOMPARE(decided, replies);
        // Every decided reply reports progress, except a front that is dropped unread.
        QCOMPARE(progressReports, replies.size() - (discarded > 0 ? 1 : 0));
        QCOMPARE(total.discarded, discarded);
        QCOMPARE(qulonglong(total.oversized), oversized);
        QCOMPARE(assembler.pending(), pending);
    }
};

QTEST_GUILESS_MAIN(UpdateServerReplyAssemblerTest)
#include "updateserverreplyassemblertest.moc"
