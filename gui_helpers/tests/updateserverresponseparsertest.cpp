// SPDX-License-Identifier: MIT
//
// The reply parser on byte strings: framing, the wait-or-fail decision, ERROR and ACK
// bodies, tree bodies, and the progress signal.
#include "updateserverresponseparser.h"
#include "settingsfile.h"

#include <QSignalSpy>
#include <QTest>

#include <climits>

using Result = ServerResponseParser::ParseResult;

namespace
{
// A tree holding abc = "xy": 2A, count 1, 'W', "abc", 0, 'S', "xy", 0.
const QByteArray kTree = QByteArray::fromHex("2a01000000576162630053787900");

QByteArray padded(QByteArray bytes, int size)
{
    return bytes.leftJustified(size, '.');
}

/** Reaches the reading primitives. */
class PrimitiveParser : public ServerResponseParser
{
public:
    using ServerResponseParser::position;
    using ServerResponseParser::readMessage;
    using ServerResponseParser::readUInt;
    using ServerResponseParser::ServerResponseParser;
};

void row(const char* name,
    const QByteArray& input,
    Result::Status status,
    qulonglong consumed,
    qulonglong progress = 0,
    qulonglong total = 0,
    const QByteArray& command = QByteArray(),
    const QByteArray& message = QByteArray(),
    int offset = 0)
{
    QTest::newRow(name) << input << offset << int(status) << consumed << progress << total << command << message;
}
} // namespace

class UpdateServerResponseParserTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { qRegisterMetaType<size_t>("size_t"); }
    void parsesOneReply_data()
    {
        QTest::addColumn<QByteArray>("input");
        QTest::addColumn<int>("offset");
        QTest::addColumn<int>("status");
        QTest::addColumn<qulonglong>("consumed");
        QTest::addColumn<qulonglong>("progress");
        QTest::addColumn<qulonglong>("total");
        QTest::addColumn<QByteArray>("command");
        QTest::addColumn<QByteArray>("message");

        using S = Result::Status;
        row("empty buffer", QByteArray(), S::HeaderIncomplete, 0);
        row("start of a word", "LIS", S::HeaderIncomplete, 0);
        row("unknown word, 23 bytes", QByteArray(23, 'X'), S::HeaderIncomplete, 0);
        row("unknown word, 24 bytes", QByteArray(24, 'X'), S::Invalid, 0);
        row("GET is no reply word", padded("GET 14 ", 24), S::Invalid, 0);
        row("lower-case word", padded("list 14 ", 24), S::Invalid, 0);
        row("LIST tree", "LIST 14 " + kTree, S::Complete, 22, 14, 14, "LIST");
        row("LIS2T tree", "LIS2T 14 " + kTree, S::Complete, 23, 14, 14, "LIS2T");
        row("GE2T tree", "GE2T 14 " + kTree, S::Complete, 22, 14, 14, "GE2T");
        row("PRODUCTKEY tree", "PRODUCTKEY 14 " + kTree, S::Complete, 28, 14, 14, "PRODUCTKEY");
        row("following reply left alone", "LIST 14 " + kTree + "ERROR 2 x\n", S::Complete, 22, 14, 14, "LIST");
        row("parsing at an offset counts from there", "ERROR 2 x\nLIST 14 " + kTree, S::Complete, 22, 14, 14, "LIST", QByteArray(), 10);
        // "LIST2" reads as LIST, then lacks its space; the wait-or-fail count starts after the
        // word. A header that fails reports no word.
        row("LIST2, few bytes after the word", padded("LIST2 14 ", 27), S::HeaderIncomplete, 4);
        row("LIST2, 24 bytes after the word", padded("LIST2 14 ", 28), S::Invalid, 4);
        row("no digits", padded("LIST x", 30), S::Invalid, 5);
        row("plus sign", padded("LIST +14 ", 30), S::Invalid, 5);
        row("no space after the length yet", "LIST 14", S::HeaderIncomplete, 7);
        row("two spaces after the word", padded("LIST  14 ", 30), S::Invalid, 5);
        row("body partly there", "LIST 14 " + kTree.left(6), S::BodyIncomplete, 8, 6, 14, "LIST");
        row("header only", "GE2T 14 ", S::BodyIncomplete, 8, 0, 14, "GE2T");
        row("huge length saturates instead of wrapping", "LIST 123456789012345678901234567890 ", S::BodyIncomplete, 36, 0, LONG_MAX, "LIST");
        row("zero length tree", padded("LIST 0 ", 30), S::Invalid, 7, 0, 0, "LIST");
        row("tree shorter than declared", "LIST 15 " + kTree + ".", S::Invalid, 8, 0, 0, "LIST");
        row("tree reader throws", "LIST 5 " + QByteArray::fromHex("2affffffff"), S::Invalid, 7, 0, 0, "LIST");
        row("record name runs past the body", "LIST 9 " + QByteArray::fromHex("2a01000000576162") + "LIST 14 " + kTree, S::Invalid, 7, 0, 0, "LIST");
        row("ERROR, text and line feed", "ERROR 8 failure\n", S::Complete, 16, 8, 8, "ERROR", "failure");
        row("ERROR, empty text", "ERROR 1 \n", S::Complete, 9, 1, 1, "ERROR");
        row("ERROR, length without the line feed", "ERROR 7 failure\n", S::Invalid, 16, 0, 0, "ERROR", "failure");
        row("ERROR, no line feed", "ERROR 7 failure", S::Invalid, 8, 0, 0, "ERROR");
        row("ERROR, text still arriving", "ERROR 8 fail", S::BodyIncomplete, 8, 4, 8, "ERROR");
        row("ACK without USAGE", "ACK 5 HELLO", S::Invalid, 6, 0, 0, "ACK");
        row("ACK, USAGE after a zero byte", QByteArray("ACK 2 OK\0USAGE", 14), S::Invalid, 6, 0, 0, "ACK");
        row("ACK, USAGE beyond the declared body", "ACK 2 OKUSAGE", S::Complete, 13, 100, 100, "USAGE");
        row("ACK takes the whole buffer", "ACK 5 USAGELIST 14 " + kTree, S::Complete, 33, 100, 100, "USAGE");
        row("ACK at an offset takes the rest only", "ERROR 2 x\nACK 5 USAGE", S::Complete, 11, 100, 100, "USAGE", QByteArray(), 10);
    }
    void parsesOneReply()
    {
        QFETCH(QByteArray, input);
        QFETCH(int, offset);
        QFETCH(int, status);
        QFETCH(qulonglong, consumed);
        QFETCH(qulonglong, progress);
        QFETCH(qulonglong, total);
        QFETCH(QByteArray, command);
        QFETCH(QByteArray, message);

        // A result that held a reply before: its word, message and tree must not survive.
        Result result;
        result.command = "LIST";
        result.message = "stale";
        result.settings->setSetting("stale", veltrax::Variant(1));
        ServerResponseParser parser(input, offset);
        QSignalSpy progressSpy(&parser, &ServerResponseParser::progressChanged);
        parser.parse(result);
        QCOMPARE(result.status, status);
        QCOMPARE(qulonglong(result.consumed), consumed);
        QCOMPARE(qulonglong(result.progress), progress);
        QCOMPARE(qulonglong(result.total), total);
        QCOMPARE(result.command, command);
        QCOMPARE(result.message, message);
        const bool tree = status == Result::Complete && command != "ERROR" && command != "USAGE";
        QCOMPARE(result.settings->size(), size_t(tree ? 1 : 0));
        if (tree)
            QCOMPARE(result.settings->setting("ABC").toStdString(), std::string("xy"));
        // A decided reply reports its progress once, with the values it had; one on its way, never.
        if (status == Result::Complete || (status == Result::Invalid && !command.isEmpty())) {
            QCOMPARE(progressSpy.count(), 1);
            QCOMPARE(progressSpy.at(0).at(0).value<size_t>(), size_t(progress));
            QCOMPARE(progressSpy.at(0).at(1).value<size_t>(), size_t(total));
        } else if (status != Result::Invalid) {
            QCOMPARE(progressSpy.count(), 0);
        }
    }
    void zeroTerminatorMatchesAtTheEndWithoutPassingIt()
    {
        QByteArray input("abc");
        PrimitiveParser parser(input);
        QByteArray text;
        QVERIFY(!parser.readMessage('\n', false, text));
        QCOMPARE(parser.position(), size_t(0));
        QVERIFY(parser.readMessage('\0', true, text));
        QCOMPARE(text, QByteArray("abc"));
        QCOMPARE(parser.position(), size_t(3));
        size_t value = 7;
        QVERIFY(!parser.readUInt(value));
        QCOMPARE(value, size_t(7));
    }
};

QTEST_GUILESS_MAIN(UpdateServerResponseParserTest)
#include "updateserverresponseparsertest.moc"
