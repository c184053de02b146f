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
    while (bytes.size() < size)
        bytes += '.';
    return bytes;
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

} // namespace

class UpdateServerResponseParserTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void parsesOneReply_data();
    void parsesOneReply();
    void completeTreeReplyCarriesTheTree();
    void ackTakesTheWholeBufferAndReportsUsage();
    void parsingAtAnOffsetCountsFromThere();
    void progressIsReportedOnlyForDecidedReplies();
    void hugeLengthSaturatesInsteadOfWrapping();
    void zeroTerminatorMatchesAtTheEndWithoutPassingIt();
    void resultStaysUsableAcrossParses();
};

void UpdateServerResponseParserTest::initTestCase()
{
    qRegisterMetaType<size_t>("size_t");
}

void UpdateServerResponseParserTest::parsesOneReply_data()
{
    QTest::addColumn<QByteArray>("input");
    QTest::addColumn<int>("status");
    QTest::addColumn<qulonglong>("consumed");
    QTest::addColumn<qulonglong>("progress");
    QTest::addColumn<qulonglong>("total");
    QTest::addColumn<QByteArray>("command");
    QTest::addColumn<QByteArray>("message");

    using S = Result::Status;
    QTest::newRow("empty buffer") << QByteArray() << int(S::HeaderIncomplete) << 0ull << 0ull << 0ull << QByteArray() << QByteArray();
    QTest::newRow("start of a word") << QByteArray("LIS") << int(S::HeaderIncomplete) << 0ull << 0ull << 0ull << QByteArray() << QByteArray();
    QTest::newRow("unknown word, 23 bytes") << QByteArray(23, 'X') << int(S::HeaderIncomplete) << 0ull << 0ull << 0ull << QByteArray() << QByteArray();
    QTest::newRow("unknown word, 24 bytes") << QByteArray(24, 'X') << int(S::Invalid) << 0ull << 0ull << 0ull << QByteArray() << QByteArray();
    QTest::newRow("GET is no reply word") << padded("GET 14 ", 24) << int(S::Invalid) << 0ull << 0ull << 0ull << QByteArray() << QByteArray();
    QTest::newRow("lower-case word") << padded("list 14 ", 24) << int(S::Invalid) << 0ull << 0ull << 0ull << QByteArray() << QByteArray();
    QTest::newRow("LIST tree") << QByteArray("LIST 14 ") + kTree << int(S::Complete) << 22ull << 14ull << 14ull << QByteArray("LIST") << QByteArray();
    QTest::newRow("LIS2T tree") << QByteArray("LIS2T 14 ") + kTree << int(S::Complete) << 23ull << 14ull << 14ull << QByteArray("LIS2T") << QByteArray();
    QTest::newRow("GE2T tree") << QByteArray("GE2T 14 ") + kTree << int(S::Complete) << 22ull << 14ull << 14ull << QByteArray("GE2T") << QByteArray();
    QTest::newRow("PRODUCTKEY tree") << QByteArray("PRODUCTKEY 14 ") + kTree << int(S::Complete) << 28ull << 14ull << 14ull << QByteArray("PRODUCTKEY")
                                     << QByteArray();
    QTest::newRow("following reply left alone") << QByteArray("LIST 14 ") + kTree + "ERROR 2 x\n"
                                                << int(S::Complete) << 22ull << 14ull << 14ull << QByteArray("LIST") << QByteArray();
    // "LIST2" reads as LIST, then lacks its space; the wait-or-fail count starts after the
    // word. A header that fails reports no word.
    QTest::newRow("LIST2, few bytes after the word") << padded("LIST2 14 ", 27) << int(S::HeaderIncomplete) << 4ull << 0ull << 0ull << QByteArray()
                                                     << QByteArray();
    QTest::newRow("LIST2, 24 bytes after the word") << padded("LIST2 14 ", 28) << int(S::Invalid) << 4ull << 0ull << 0ull << QByteArray() << QByteArray();
    QTest::newRow("no digits") << padded("LIST x", 30) << int(S::Invalid) << 5ull << 0ull << 0ull << QByteArray() << QByteArray();
    QTest::newRow("plus sign") << padded("LIST +14 ", 30) << int(S::Invalid) << 5ull << 0ull << 0ull << QByteArray() << QByteArray();
    QTest::newRow("no space after the length yet") << QByteArray("LIST 14") << int(S::HeaderIncomplete) << 7ull << 0ull << 0ull << QByteArray() << QByteArray();
    QTest::newRow("two spaces after the word") << padded("LIST  14 ", 30) << int(S::Invalid) << 5ull << 0ull << 0ull << QByteArray() << QByteArray();
    QTest::newRow("body partly there") << QByteArray("LIST 14 ") + kTree.left(6) << int(S::BodyIncomplete) << 8ull << 6ull << 14ull << QByteArray("LIST")
                                       << QByteArray();
    QTest::newRow("header only") << QByteArray("GE2T 14 ") << int(S::BodyIncomplete) << 8ull << 0ull << 14ull << QByteArray("GE2T") << QByteArray();
    QTest::newRow("zero length tree") << padded("LIST 0 ", 30) << int(S::Invalid) << 7ull << 0ull << 0ull << QByteArray("LIST") << QByteArray();
    QTest::newRow("tree shorter than declared") << QByteArray("LIST 15 ") + kTree + "." << int(S::Invalid) << 8ull << 0ull << 0ull << QByteArray("LIST")
                                                << QByteArray();
    QTest::newRow("tree reader throws") << QByteArray("LIST 5 ") + QByteArray::fromHex("2affffffff") << int(S::Invalid) << 7ull << 0ull << 0ull
                                        << QByteArray("LIST") << QByteArray();
    QTest::newRow("record name runs past the body") << QByteArray("LIST 9 ") + QByteArray::fromHex("2a01000000576162") + "LIST 14 " + kTree << int(S::Invalid)
                                                    << 7ull << 0ull << 0ull << QByteArray("LIST") << QByteArray();
    QTest::newRow("ERROR, text and line feed") << QByteArray("ERROR 8 failure\n") << int(S::Complete) << 16ull << 8ull << 8ull << QByteArray("ERROR")
                                               << QByteArray("failure");
    QTest::newRow("ERROR, empty text") << QByteArray("ERROR 1 \n") << int(S::Complete) << 9ull << 1ull << 1ull << QByteArray("ERROR") << QByteArray();
    QTest::newRow("ERROR, length without the line feed")
        << QByteArray("ERROR 7 failure\n") << int(S::Invalid) << 16ull << 0ull << 0ull << QByteArray("ERROR") << QByteArray("failure");
    QTest::newRow("ERROR, no line feed") << QByteArray("ERROR 7 failure") << int(S::Invalid) << 8ull << 0ull << 0ull << QByteArray("ERROR") << QByteArray();
    QTest::newRow("ERROR, text still arriving") << QByteArray("ERROR 8 fail") << int(S::BodyIncomplete) << 8ull << 4ull << 8ull << QByteArray("ERROR")
                                                << QByteArray();
    QTest::newRow("ACK without USAGE") << QByteArray("ACK 5 HELLO") << int(S::Invalid) << 6ull << 0ull << 0ull << QByteArray("ACK") << QByteArray();
    QTest::newRow("ACK, USAGE after a zero byte") << QByteArray("ACK 2 OK\0USAGE", 14) << int(S::Invalid) << 6ull << 0ull << 0ull << QByteArray("ACK")
                                                  << QByteArray();
    QTest::newRow("ACK, USAGE beyond the declared body")
        << QByteArray("ACK 2 OKUSAGE") << int(S::Complete) << 13ull << 100ull << 100ull << QByteArray("USAGE") << QByteArray();
}

void UpdateServerResponseParserTest::parsesOneReply()
{
    QFETCH(QByteArray, input);
    QFETCH(int, status);
    QFETCH(qulonglong, consumed);
    QFETCH(qulonglong, progress);
    QFETCH(qulonglong, total);
    QFETCH(QByteArray, command);
    QFETCH(QByteArray, message);

    ServerResponseParser parser(input);
    Result result;
    parser.parse(result);
    QCOMPARE(result.status, status);
    QCOMPARE(qulonglong(result.consumed), consumed);
    QCOMPARE(qulonglong(result.progress), progress);
    QCOMPARE(qulonglong(result.total), total);
    QCOMPARE(result.command, command);
    QCOMPARE(result.message, message);
    if (status != Result::Complete || command == "ERROR" || command == "USAGE")
        QVERIFY(result.settings->empty());
}

void UpdateServerResponseParserTest::completeTreeReplyCarriesTheTree()
{
    QByteArray input = QByteArray("LIS2T 14 ") + kTree;
    ServerResponseParser parser(input);
    Result result;
    parser.parse(result);
    QCOMPARE(result.status, int(Result::Complete));
    QCOMPARE(result.settings->size(), size_t(1));
    QCOMPARE(result.settings->setting("ABC").toStdString(), std::string("xy"));
}

void UpdateServerResponseParserTest::ackTakesTheWholeBufferAndReportsUsage()
{
    QByteArray input = QByteArray("ACK 5 USAGE") + "LIST 14 " + kTree;
    ServerResponseParser parser(input);
    QSignalSpy progress(&parser, &ServerResponseParser::progressChanged);
    Result result;
    parser.parse(result);
    QCOMPARE(result.status, int(Result::Complete));
    QCOMPARE(result.command, QByteArray("USAGE"));
    QCOMPARE(qulonglong(result.consumed), qulonglong(input.size()));
    QCOMPARE(progress.count(), 1);
    QCOMPARE(progress.at(0).at(0).value<size_t>(), size_t(100));
    QCOMPARE(progress.at(0).at(1).value<size_t>(), size_t(100));
}

void UpdateServerResponseParserTest::parsingAtAnOffsetCountsFromThere()
{
    QByteArray input = QByteArray("ERROR 2 x\n") + "LIST 14 " + kTree + "ACK 5 USAGE";
    Result result;
    {
        ServerResponseParser parser(input, 10);
        parser.parse(result);
    }
    QCOMPARE(result.status, int(Result::Complete));
    QCOMPARE(result.command, QByteArray("LIST"));
    QCOMPARE(result.consumed, size_t(22));
    {
        ServerResponseParser parser(input, 32);
        parser.parse(result);
    }
    QCOMPARE(result.command, QByteArray("USAGE"));
    QCOMPARE(result.consumed, size_t(11)); // the rest of the buffer, not all of it
}

void UpdateServerResponseParserTest::progressIsReportedOnlyForDecidedReplies()
{
    const QByteArray whole = QByteArray("GE2T 14 ") + kTree;
    // Every prefix but the whole reply is undecided and must stay silent.
    for (int n = 0; n < whole.size(); ++n) {
        QByteArray part = whole.left(n);
        ServerResponseParser parser(part);
        QSignalSpy progress(&parser, &ServerResponseParser::progressChanged);
        Result result;
        parser.parse(result);
        QVERIFY2(result.status == Result::HeaderIncomplete || result.status == Result::BodyIncomplete, qPrintable(QString::number(n)));
        QCOMPARE(progress.count(), 0);
    }
    QByteArray input = whole;
    ServerResponseParser parser(input);
    QSignalSpy progress(&parser, &ServerResponseParser::progressChanged);
    Result result;
    parser.parse(result);
    QCOMPARE(progress.count(), 1);
    QCOMPARE(progress.at(0).at(0).value<size_t>(), size_t(14));
    QCOMPARE(progress.at(0).at(1).value<size_t>(), size_t(14));

    // A decided failure reports too, with the values it had.
    QByteArray bad("ERROR 7 failure\n");
    ServerResponseParser badParser(bad);
    QSignalSpy badProgress(&badParser, &ServerResponseParser::progressChanged);
    badParser.parse(result);
    QCOMPARE(result.status, int(Result::Invalid));
    QCOMPARE(badProgress.count(), 1);
}

void UpdateServerResponseParserTest::hugeLengthSaturatesInsteadOfWrapping()
{
    QByteArray input("LIST 123456789012345678901234567890 ");
    ServerResponseParser parser(input);
    Result result;
    parser.parse(result);
    QCOMPARE(result.status, int(Result::BodyIncomplete));
    QCOMPARE(result.total, size_t(LONG_MAX));
    QCOMPARE(result.progress, size_t(0));
}

void UpdateServerResponseParserTest::zeroTerminatorMatchesAtTheEndWithoutPassingIt()
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

void UpdateServerResponseParserTest::resultStaysUsableAcrossParses()
{
    // clear() must drop the previous reply's word, message and tree.
    Result result;
    QByteArray first = QByteArray("LIST 14 ") + kTree;
    ServerResponseParser(first).parse(result);
    QCOMPARE(result.settings->size(), size_t(1));
    QByteArray second("ERROR 4 bad\n");
    ServerResponseParser(second).parse(result);
    QCOMPARE(result.command, QByteArray("ERROR"));
    QCOMPARE(result.message, QByteArray("bad"));
    QVERIFY(result.settings->empty());
}

QTEST_GUILESS_MAIN(UpdateServerResponseParserTest)
#include "updateserverresponseparsertest.moc"
