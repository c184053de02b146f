// SPDX-License-Identifier: MIT
#include "settingsfile.h"
#include "variantsamples.h"

#include <QJsonDocument>
#include <QTest>

using veltrax::SettingsFile;
using veltrax::Variant;

namespace
{
std::string json(const SettingsFile& tree)
{
    std::string out;
    tree.writeJsonString(out);
    return out;
}

// The JSON text parsed, so that tests do not depend on the order of the hash maps.
QVariant parsed(const std::string& text)
{
    QJsonParseError error;
    const QJsonDocument doc = QJsonDocument::fromJson(QByteArray::fromStdString(text), &error);
    if (error.error != QJsonParseError::NoError)
        return QStringLiteral("invalid: ") + QString::fromStdString(text);
    return doc.toVariant();
}

} // namespace

class SettingsFileJsonTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void writerFollowsLayout_data()
    {
        QTest::addColumn<QStringList>("settings"); // vxa lines
        QTest::addColumn<QString>("expected");

        QTest::newRow("empty tree") << QStringList() << "{}";
        QTest::newRow("one setting") << QStringList {"a=I:1"} << "{\"a\":1}";
        QTest::newRow("scalars") << QStringList {"b=B:Y", "d=F:0.5", "s=S:x", "n=S:null", "j=J:-2"} << "{\"b\":true,\"d\":0.5,\"s\":\"x\",\"n\":null,\"j\":-2}";
        QTest::newRow("nested") << QStringList {"a.b.c=I:1", "a.d=S:t"} << "{\"a\":{\"d\":\"t\",\"b\":{\"c\":1}}}";
        QTest::newRow("list with count") << QStringList {"l.itemCount=I:2", "l.item0.x=I:1", "l.item1.y=I:2"} << "{\"l\":[{\"x\":1},{\"y\":2}]}";
        QTest::newRow("list with missing item") << QStringList {"l.itemCount=I:2", "l.item1.y=I:2"} << "{\"l\":[{},{\"y\":2}]}";
        QTest::newRow("list ignores other settings") << QStringList {"l.itemCount=I:1", "l.item0.x=I:1", "l.note=S:n"} << "{\"l\":[{\"x\":1}]}";
        QTest::newRow("containers") << QStringList {"v=V:[1,2.5]", "i=L:[1,2]", "u=U:[\"p\",\"q\"]", "m=M:[1,2;3,4]"}
                                    << "{\"v\":[1,2.5],\"i\":[1,2],\"u\":[\"p\",\"q\"],\"m\":\"[1,2;3,4]\"}";
        QTest::newRow("quotes not escaped") << QStringList {"q=S:say \"hi\""} << "{\"q\":\"say \"hi\"\"}";
        QTest::newRow("list without count runs to first gap")
            << QStringList {"l.item0.a=I:0", "l.item1.a=I:1", "l.item3.a=I:3"} << "{\"l\":[{\"a\":0},{\"a\":1}]}";
        QTest::newRow("count beyond items") << QStringList {"l.itemCount=I:3", "l.item0.a=I:0"} << "{\"l\":[{\"a\":0},{},{}]}";
        QTest::newRow("negative count") << QStringList {"l.itemCount=I:-5", "l.item0.a=I:0"} << "{\"l\":[]}";
        QTest::newRow("count not a number runs to first gap") << QStringList {"l.itemCount=V:[1,2]", "l.item0.a=I:0", "l.item2.a=I:2"} << "{\"l\":[{\"a\":0}]}";
    }

    void writerFollowsLayout()
    {
        QFETCH(QStringList, settings);
        QFETCH(QString, expected);
        SettingsFile t;
        t.readVxaString(settings.join('\n').toStdString());
        const std::string out = json(t);
        QVERIFY(out.find(' ') == std::string::npos || expected.contains(' '));
        QCOMPARE(parsed(out), parsed(expected.toStdString()));
    }

    void emptySubTreeIsAnEmptyListAndEmptyValueFails()
    {
        SettingsFile t;
        t.findSubTreeRef("empty.deeper");
        QCOMPARE(json(t), std::string("{\"empty\":[]}"));
        t.setSetting("e", Variant());
        std::string out;
        QVERIFY_EXCEPTION_THROWN(t.writeJsonString(out), std::logic_error);
    }

    void hugeItemCountIsBounded()
    {
        SettingsFile t;
        t.setSetting("l.itemCount", Variant(2000000000));
        t.setSetting("l.item0.a", Variant(0));
        t.setSetting("l.item70000.a", Variant(1));
        std::string out = json(t);
        QVERIFY(out.size() < 70001 * 3 + 100);
        QVERIFY(out.find("{\"a\":1}]}") != std::string::npos); // up to the last existing item
    }

    void readerMapsJsonToTree_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QStringList>("expected"); // vxa lines of the flattened tree

        QTest::newRow("empty object") << "{}" << QStringList();
        QTest::newRow("scalars") << "{\"i\":-3,\"u\":7,\"d\":1.5,\"b\":false,\"s\":\"t\",\"n\":null}"
                                 << QStringList {"b=B:N", "d=F:1.5", "i=J:-3", "n=S:null", "s=S:t", "u=J:7"};
        QTest::newRow("big unsigned keeps bits") << "{\"u\":18446744073709551615}" << QStringList {"u=J:-1"};
        QTest::newRow("nested objects") << "{\"a\":{\"b\":{\"c\":1}}}" << QStringList {"a.b.c=J:1"};
        QTest::newRow("array of objects") << "{\"l\":[{\"x\":1},{\"y\":2}]}" << QStringList {"l.item0.x=J:1", "l.item1.y=J:2", "l.itemCount=I:2"};
        QTest::newRow("mixed array") << "{\"l\":[1,\"a\",{\"o\":true},[2,3]]}"
                                     << QStringList {"l.item0=J:1", "l.item1=S:a", "l.item2.o=B:Y", "l.item3=L:[2,3]", "l.itemCount=I:4"};
        QTest::newRow("strings become labels") << "{\"l\":[\"a b\",\"c\"]}" << QStringList {"l=U:[\"a b\",\"c\"]"};
        QTest::newRow("small unsigned become int list") << "{\"l\":[0,4294967295]}" << QStringList {"l=L:[0,4294967295]"};
        QTest::newRow("other numbers become vector") << "{\"l\":[1,-2,0.5]}" << QStringList {"l=V:[1,-2,0.5]"};
        QTest::newRow("dotted keys are paths") << "{\"a.b\":1}" << QStringList {"a.b=J:1"};
        QTest::newRow("escapes decoded") << "{\"s\":\"q\\\"\\u00e9\"}" << QStringList {"s=S:q\"\xc3\xa9"};
        QTest::newRow("long text") << QStringLiteral("{\"s\":\"%1\"}").arg(QString(300, 'x')) << QStringList {QStringLiteral("s=T:") + QString(300, 'x')};
        // What is no object is refused: the tree keeps its setting and is not modified. Arbitrary
        // text is fuzz_jsonstring's, replayed over its corpus by fuzzcorpustest.
        const QStringList kept {"old=I:1"};
        QTest::newRow("refused: empty") << "" << kept;
        QTest::newRow("refused: array") << "[1,2]" << kept;
        QTest::newRow("refused: number") << "5" << kept;
        QTest::newRow("refused: truncated") << "{\"a\":" << kept;
        QTest::newRow("refused: trailing garbage") << "{} x" << kept;
        QTest::newRow("refused: unescaped quote from the writer") << "{\"q\":\"a\"b\"}" << kept;
        QTest::newRow("refused: deep nesting") << QString(SettingsFile::MaxDepth + 1, '{') << kept;
        QTest::newRow("refused: deep arrays") << QStringLiteral("{\"a\":") + QString(100000, '[') + QString(100000, ']') + '}' << kept;
        QTest::newRow("refused: deep dotted key") << QStringLiteral("{\"") + QStringLiteral("d.").repeated(SettingsFile::MaxDepth + 1) + "x\":1}" << kept;
    }

    void readerMapsJsonToTree()
    {
        QFETCH(QString, text);
        QFETCH(QStringList, expected);
        const bool refused = QByteArray(QTest::currentDataTag()).startsWith("refused");
        SettingsFile t;
        t.setSetting("old", Variant(1));
        t.setDirty(false);
        QCOMPARE(t.readJsonString(text.toStdString()), !refused);
        QCOMPARE(lines(t), expected);
        QCOMPARE(t.isModified(), !refused);
    }

    void readerReadsWriterOutputBack()
    {
        SettingsFile t;
        t.setSetting("name", Variant("n"));
        t.setSetting("flag", Variant(true));
        t.setSetting("ratio", Variant(0.25));
        t.setSetting("count", Variant(12L));
        t.setSetting("nothing", Variant("null"));
        t.setSetting("sub.deeper.x", Variant(-1L));
        t.setSetting("list.itemCount", Variant(2));
        t.setSetting("list.item0.v", Variant(1L));
        t.setSetting("list.item1.v", Variant(2L));
        t.setSetting("labels", Variant(VxStringArray {"a", "b"}));
        t.setSetting("ints", Variant(veltrax::IntList {4, 5}));
        t.findSubTreeRef("emptySub");
        SettingsFile back;
        QVERIFY(back.readJsonString(json(t)));
        QCOMPARE(parsed(json(back)), parsed(json(t)));
        QVERIFY(back.hasSubTree("emptySub"));
        QCOMPARE(back.setting("list.item1.v").toInt64(), int64_t(2));
        QCOMPARE(back.setting("labels"), t.setting("labels"));
    }
};

QTEST_GUILESS_MAIN(SettingsFileJsonTest)
#include "settingsfilejsontest.moc"
