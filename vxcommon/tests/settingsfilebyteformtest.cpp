// SPDX-License-Identifier: MIT
#include "settingsfile.h"
#include "variantsamples.h"

#include <QTest>

using veltrax::SettingsFile;
using veltrax::Variant;

namespace
{
QByteArray bytesOf(const VxByteArray& a)
{
    return QByteArray(a.data(), int(a.size()));
}

VxByteArray toVx(const QByteArray& b)
{
    return VxByteArray(b.constData(), size_t(b.size()));
}

VxByteArray serialized(const SettingsFile& tree)
{
    VxByteArray out;
    tree.serialize(out);
    return out;
}

// Any bytes are either read within their bounds or rejected with one of the reader's own errors.
// Arbitrary and mutated forms are fuzz_settingsfile's, replayed over its corpus by fuzzcorpustest.
void readsCleanlyOrFails(const VxByteArray& form)
{
    SettingsFile read;
    try {
        const int n = read.deserialize(form, 0);
        QVERIFY(n >= 0 && size_t(n) <= form.size());
        VxByteArray again;
        read.serialize(again); // whatever was read can be written
    } catch (const VxException& e) {
        QVERIFY2(e.resultValue() == VXRV_INSUFFICIENTDATA || e.resultValue() == VXRV_DATAOVERFLOW, e.what());
    } catch (const std::out_of_range& e) {
        QCOMPARE(QString::fromUtf8(e.what()), QStringLiteral("index out of range"));
    }
}
} // namespace

class SettingsFileByteFormTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void exactForms_data()
    {
        QTest::addColumn<QByteArray>("name");
        QTest::addColumn<Variant>("value");
        QTest::addColumn<QByteArray>("form");
        QTest::addColumn<int>("consumed");
        QTest::newRow("empty tree") << QByteArray() << Variant() << QByteArray("\x2A\x00\x00\x00\x00", 5) << 5;
        QTest::newRow("worked example") << QByteArray("abc") << Variant("xy") << QByteArray("*\x01\0\0\0Wabc\0Sxy\0", 14) << 14;
        QTest::newRow("bool") << QByteArray("k") << Variant(true) << QByteArray("*\x01\0\0\0Wk\0B\x01", 10) << 10;
        // The value reader wants two bytes before it reads anything, so an Empty value in the
        // very last byte is left unread and not counted.
        QTest::newRow("empty value last") << QByteArray("e") << Variant() << QByteArray("\x2A\x01\x00\x00\x00We\x00\x00", 9) << 8;
    }
    void exactForms()
    {
        QFETCH(QByteArray, name);
        QFETCH(Variant, value);
        QFETCH(QByteArray, form);
        SettingsFile tree;
        if (!name.isEmpty())
            tree.setSetting(name.toStdString(), value);
        else
            tree.findSubTreeRef("a.b"); // an empty subtree writes nothing
        VxByteArray out("head", 4); // the writer keeps what is already in its output
        tree.serialize(out);
        QCOMPARE(bytesOf(out), "head" + form);

        SettingsFile read;
        read.setSetting("old", Variant(1));
        read.setSetting("keep.x", Variant(1));
        QVERIFY(read.isModified());
        QTEST(read.deserialize(toVx(form), 0), "consumed");
        QCOMPARE(read.size(), size_t(name.isEmpty() ? 0 : 1));
        QVERIFY(!read.hasSetting("old"));
        QVERIFY(read.setting(name.toStdString()) == value);
        QCOMPARE(read.deserialize(toVx(form + "!"), 0), form.size()); // followed by anything, all is read
        // Existing subtrees stay, emptied; the tree read counts as unmodified.
        QVERIFY(read.hasSubTree("keep", true));
        QVERIFY(!read.hasSubTree("keep", false));
        QVERIFY(!read.isModified());
        QVERIFY(!read.subTree("keep").isModified());
    }

    void valueLengthsFollowKinds_data()
    {
        QTest::addColumn<Variant>("value");
        QTest::addColumn<int>("length");
        QTest::newRow("empty") << Variant() << 1;
        QTest::newRow("bool") << Variant(false) << 2;
        QTest::newRow("int32") << Variant(1) << 5;
        QTest::newRow("double") << Variant(1.0) << 9;
        QTest::newRow("int64") << Variant(1L) << 9;
        QTest::newRow("short string") << Variant("abcd") << 6;
        QTest::newRow("int list") << Variant(veltrax::IntList {1, 2, 3}) << 17;
        QTest::newRow("matrix") << Variant(VxMatrix(2, 3)) << 9 + 48;
        QTest::newRow("binary object") << Variant(veltrax::BinaryObject("abc", 3)) << 8;
        QTest::newRow("quaternion") << Variant(VxQuaternion()) << 33;
        QTest::newRow("vector") << Variant(VxVector {1, 2}) << 21;
        QTest::newRow("empty label list") << Variant(veltrax::LabelList()) << 5;
        QTest::newRow("label list") << Variant(labels({"ab", "c"})) << 10;
        QTest::newRow("tensor") << Variant(veltrax::Tensor({2, 3})) << 1 + 8 + 16 + 48;
        QTest::newRow("matrix array") << Variant(veltrax::MatrixArray {VxMatrix(1, 1)}) << 1 + 4 + 16;
    }

    void valueLengthsFollowKinds()
    {
        QFETCH(Variant, value);
        QFETCH(int, length);
        QCOMPARE(value.serialize(static_cast<char*>(nullptr)), length);
        VxByteArray out;
        value.serialize(out);
        QCOMPARE(int(out.size()), length);
        QCOMPARE(uint8_t(out[0]), uint8_t(value.type()));
        std::vector<char> buffer(size_t(length) + 1, '\x55');
        QCOMPARE(value.serialize(buffer.data()), length);
        QCOMPARE(QByteArray(buffer.data(), length), bytesOf(out));
        QCOMPARE(buffer[size_t(length)], '\x55');
    }

    void everyKindRoundTripsAndSurvivesTruncation_data()
    {
        QTest::addColumn<Variant>("value");
        QTest::addColumn<bool>("scrambled");
        for (const auto& kind : everyKind()) {
            QTest::newRow(kind.first.constData()) << kind.second << false;
            QTest::newRow((kind.first + " scrambled").constData()) << kind.second << true;
        }
    }
    void everyKindRoundTripsAndSurvivesTruncation()
    {
        QFETCH(Variant, value);
        QFETCH(bool, scrambled);
        SettingsFile tree;
        tree.setSetting("v", value);
        tree.setSetting("z.after", Variant(1)); // subtrees come last: an Empty value is not the last byte
        tree.setEncrypted(scrambled);
        const VxByteArray form = serialized(tree);
        QCOMPARE(form[0], scrambled ? '#' : '*');
        SettingsFile read;
        QCOMPARE(read.deserialize(form, 0), int(form.size()));
        QCOMPARE(read.isEncrypted(), scrambled);
        const Variant back = read.setting("v");
        QCOMPARE(int(back.type()), int(value.type()));
        QVERIFY(back == value);
        // Every truncation, copied to exactly its length so that a sanitizer sees any read past it.
        for (size_t cut = 0; cut < form.size(); ++cut)
            readsCleanlyOrFails(VxByteArray(form.data(), cut));

        // And the value on its own, read over a variant of another kind.
        VxByteArray alone;
        value.serialize(alone);
        alone.append("tail", 4);
        Variant other(veltrax::IntList {9});
        QCOMPARE(other.deserialize(alone, 0), int(alone.size()) - 4);
        QVERIFY(other == value);
        // Fewer than two bytes left, even none or a position past the end: nothing is read.
        for (const size_t from : {alone.size() - 1, alone.size(), alone.size() + 3})
            QCOMPARE(other.deserialize(alone, int(from)), 0);
        QVERIFY(other == value);
    }

    void nestedNamesRoundTrip()
    {
        SettingsFile tree;
        tree.setSetting("a.b.rate", Variant(2.5));
        tree.setSetting("a.x", Variant(1));
        tree.setSetting("top", Variant("t"));
        tree.setSetting("a.b.c.d", Variant(true));
        tree.setSetting("z.b.rate", Variant(3.5));
        SettingsFile read;
        read.deserialize(serialized(tree), 0);
        QCOMPARE(lines(read), (QStringList {"a.b.c.d=B:Y", "a.b.rate=F:2.5", "a.x=I:1", "top=S:t", "z.b.rate=F:3.5"}));
        QCOMPARE(read.subTree("a.b").getFullName("rate"), std::string("a.b.rate"));
        // Names as stored; the subtree's records carry their path.
        const QByteArray bytes = bytesOf(serialized(tree));
        QVERIFY(bytes.contains(QByteArray("Wa.b.rate\0F", 11)));
    }

    void readsAtOffsetAndLeavesTheRest()
    {
        SettingsFile first;
        first.setSetting("a", Variant(1));
        SettingsFile second;
        second.setSetting("b", Variant("two"));
        VxByteArray all("prefix", 6);
        first.serialize(all);
        const size_t firstEnd = all.size();
        second.serialize(all);
        all.append("trailer", 7);

        SettingsFile read;
        const int n = read.deserialize(all, 6);
        QCOMPARE(size_t(6 + n), firstEnd);
        QCOMPARE(lines(read), QStringList {"a=I:1"});
        const int m = read.deserialize(all, 6 + n);
        QCOMPARE(size_t(6 + n + m), all.size() - 7);
        QCOMPARE(lines(read), QStringList {"b=S:two"});
    }

    void readerRules_data()
    {
        QTest::addColumn<QByteArray>("form");
        QTest::addColumn<QStringList>("settings"); // name=T:value, as flattened
        QTest::newRow("first byte other than hash is plain") << QByteArray("!\x01\0\0\0WQ\0I\x05\0\0\0", 13) << QStringList {"Q=I:5"};
        QTest::newRow("names differing in case land on one setting")
            << QByteArray("*\x02\0\0\0WRate\0I\x01\0\0\0Wrate\0I\x02\0\0\0", 27) << QStringList {"Rate=I:2"};
        QTest::newRow("and on one subtree") << QByteArray("*\x02\0\0\0WA.x\0I\x01\0\0\0Wa.y\0I\x02\0\0\0", 25) << QStringList {"A.x=I:1", "A.y=I:2"};
        QTest::newRow("unknown tag consumes the tag only") << QByteArray("*\x02\0\0\0Wa\0ZWb\0B\x01", 14) << QStringList {"a=Z:", "b=B:Y"};
    }
    void readerRules()
    {
        QFETCH(QByteArray, form);
        SettingsFile read;
        read.setEncrypted(true);
        QCOMPARE(read.deserialize(toVx(form), 0), form.size());
        QVERIFY(!read.isEncrypted());
        const QStringList got = lines(read);
        QTEST(got, "settings");
        // Read as it came, written as it came (an unknown tag included).
        if (got.size() == form.count('W'))
            QCOMPARE(bytesOf(serialized(read)).size(), form.size());
    }

    void sizeErrorsLeaveTreeUnchanged_data()
    {
        QTest::addColumn<QByteArray>("form");
        QTest::addColumn<int>("offset");
        QTest::addColumn<int>("result");
        QTest::addColumn<QString>("text");
        const QString tooLittle = QStringLiteral("Not enough data to deserialize SettingsFile");
        const QString tooMany = QStringLiteral("Number of reported settings in file exceeds sensible boundaries");
        QTest::newRow("nothing") << QByteArray() << 0 << int(VXRV_INSUFFICIENTDATA) << tooLittle;
        QTest::newRow("four bytes") << QByteArray("*\0\0\0", 4) << 0 << int(VXRV_INSUFFICIENTDATA) << tooLittle;
        QTest::newRow("four bytes after offset") << QByteArray("xx*\0\0\0\0", 7) << 3 << int(VXRV_INSUFFICIENTDATA) << tooLittle;
        QTest::newRow("offset beyond end") << QByteArray("*\0\0\0\0", 5) << 9 << int(VXRV_INSUFFICIENTDATA) << tooLittle;
        QTest::newRow("21 records in 146 bytes") << QByteArray("*\x15\0\0\0", 5) + QByteArray(7 * 21 - 6, 'W') << 0 << int(VXRV_DATAOVERFLOW) << tooMany;
        QTest::newRow("huge count") << QByteArray("*\xff\xff\xff\xff", 5) << 0 << int(VXRV_DATAOVERFLOW) << tooMany;
        // The writer has no such limit: 21 settings of a one-letter name and no value take
        // 4 bytes each, and the reader refuses the tree's own form.
        SettingsFile tiny;
        for (char name = 'a'; name <= 'u'; ++name)
            tiny.setSetting(std::string(1, name), Variant());
        VxByteArray tinyForm;
        tiny.serialize(tinyForm);
        QTest::newRow("own form of 21 empty settings") << QByteArray(tinyForm.data(), int(tinyForm.size())) << 0 << int(VXRV_DATAOVERFLOW) << tooMany;
        QTest::newRow("scrambled long zero run") << QByteArray("#\x01\x02\x03\x04\0\0\0\0\0\0\0\0", 13) << 0 << int(VXRV_DATAOVERFLOW)
                                                 << "Unacceptably long stretch of empty elements";
    }
    void sizeErrorsLeaveTreeUnchanged()
    {
        QFETCH(QByteArray, form);
        QFETCH(int, offset);
        SettingsFile tree;
        tree.setSetting("kept", Variant(1));
        try {
            tree.deserialize(toVx(form), offset);
            QFAIL("no error");
        } catch (const VxException& e) {
            QTEST(int(e.resultValue()), "result");
            QTEST(QString::fromStdString(e.text().toStdString()), "text");
        }
        QCOMPARE(tree.setting("kept").toInt32(), 1);
        QCOMPARE(tree.isEncrypted(), form.startsWith('#')); // the flag follows the marker already
    }

    void smallCountIsNeverRejectedForSize()
    {
        // 20 claimed records in 5 bytes: not a size error, but the first record runs out.
        SettingsFile tree;
        QVERIFY_EXCEPTION_THROWN(tree.deserialize(toVx(QByteArray("*\x14\0\0\0", 5)), 0), std::out_of_range);
        // 21 claimed records in exactly 7 * 21 bytes passes the size check.
        QByteArray form("*\x15\0\0\0", 5);
        for (int i = 0; i < 21; ++i)
            form.append(QByteArray("W") + char('a' + i) + QByteArray("\0B\x01", 3));
        form.append(QByteArray(7 * 21 - form.size(), '\0'));
        QCOMPARE(tree.deserialize(toVx(form), 0), 5 + 21 * 5);
        QCOMPARE(tree.size(), size_t(21));
    }

    void recordPastEndIsOutOfRange_data()
    {
        QTest::addColumn<QByteArray>("form");
        QTest::newRow("record at last byte") << QByteArray("*\x01\0\0\0W", 6);
        QTest::newRow("name without terminator") << QByteArray("*\x01\0\0\0Wabc", 9);
        QTest::newRow("second record missing") << QByteArray("*\x02\0\0\0Wa\0B\x01", 10);
        QTest::newRow("double payload short") << QByteArray("*\x01\0\0\0Wa\0F\0\0\0", 12);
        QTest::newRow("payload short under a new path") << QByteArray("*\x01\0\0\0Wa.b.c\0I\0\0", 14);
        QTest::newRow("string without terminator") << QByteArray("*\x01\0\0\0Wa\0Sabc", 12);
        QTest::newRow("int list count beyond data") << QByteArray("*\x01\0\0\0Wa\0L\x09\0\0\0\0\0\0\0", 17);
        QTest::newRow("matrix size overflows") << QByteArray("*\x01\0\0\0Wa\0M\xff\xff\xff\xff\xff\xff\xff\xff", 17);
        QTest::newRow("tensor rank huge") << QByteArray("*\x01\0\0\0Wa\0Y\xff\xff\xff\xff\xff\xff\xff\xff", 17);
        QTest::newRow("tensor size product overflows") << QByteArray("*\x01\0\0\0Wa\0Y\x02\0\0\0\0\0\0\0"
                                                                     "\0\0\0\0\0\0\0\x80\0\0\0\0\0\0\0\x80",
            33);
        QTest::newRow("binary object beyond data") << QByteArray("*\x01\0\0\0Wa\0N\x05\0\0\0ab", 15);
        QTest::newRow("matrix array count beyond data") << QByteArray("*\x01\0\0\0Wa\0A\xff\xff\xff\x7f", 13);
        QTest::newRow("label list without terminator") << QByteArray("*\x01\0\0\0Wa\0U\x01\0\0\0abc", 16);
    }

    void recordPastEndIsOutOfRange()
    {
        QFETCH(QByteArray, form);
        SettingsFile tree;
        tree.setSetting("old", Variant(1));
        try {
            tree.deserialize(toVx(form), 0);
            QFAIL("no error");
        } catch (const std::out_of_range& e) {
            QCOMPARE(QString::fromUtf8(e.what()), QStringLiteral("index out of range"));
        }
        QVERIFY(!tree.hasSetting("old")); // cleared before the records were read
        QCOMPARE(tree.subTrees(false).size(), size_t(0)); // nor made by the failing name
        // Only records before the failing one are stored.
        QCOMPARE(tree.size(), size_t(QByteArray(QTest::currentDataTag()) == "second record missing" ? 1 : 0));
    }

    void labelListReadingRules_data()
    {
        QTest::addColumn<QByteArray>("payload");
        QTest::addColumn<QStringList>("expected");
        QTest::addColumn<int>("consumed");

        QTest::newRow("none") << QByteArray("\0\0\0\0", 4) << QStringList() << 4;
        QTest::newRow("two") << QByteArray("\x02\0\0\0ab c\0", 9) << QStringList {"ab", "c"} << 9;
        QTest::newRow("runs of white space") << QByteArray("\x02\0\0\0  a\t\n b\0", 12) << QStringList {"a", "b"} << 12;
        QTest::newRow("fewer words than count") << QByteArray("\x03\0\0\0a    b\0", 11) << QStringList {"a", "b", ""} << 11;
        QTest::newRow("stops after the n-th label") << QByteArray("\x01\0\0\0a b\0", 8) << QStringList {"a"} << 6;
        // Too short for n one-character labels: empty list, terminator not counted.
        QTest::newRow("one byte short") << QByteArray("\x03\0\0\0ab\0", 7) << QStringList() << 6;
        QTest::newRow("empty text") << QByteArray("\x01\0\0\0\0", 5) << QStringList() << 4;
        QByteArray longWord("\x02\0\0\0", 4);
        longWord.append(QByteArray(300, 'x'));
        longWord.append('\0');
        QTest::newRow("long word cut into pieces") << longWord << QStringList {QString(255, 'x'), QString(45, 'x')} << 305;
    }

    void labelListReadingRules()
    {
        QFETCH(QByteArray, payload);
        veltrax::LabelList list {veltrax::Label("old")};
        QTEST(list.deserialize(payload.constData(), payload.constData() + payload.size()), "consumed");
        QStringList got;
        for (const auto& l : list)
            got << QString::fromStdString(l.toStdString());
        QTEST(got, "expected");
    }

    void overlongStringIsCutButConsumed_data()
    {
        QTest::addColumn<char>("tag");
        QTest::addColumn<int>("length");
        QTest::addColumn<int>("kept");
        QTest::newRow("short string of 300") << 'S' << 300 << 255;
        QTest::newRow("long string of 20000") << 'T' << 20000 << 16383;
    }

    void overlongStringIsCutButConsumed()
    {
        QFETCH(char, tag);
        QFETCH(int, length);
        QByteArray form("*\x02\0\0\0Ws\0", 8);
        form.append(tag);
        form.append(QByteArray(length, 'k'));
        form.append('\0');
        form.append(QByteArray("Wn\0I\x07\0\0\0", 8));
        SettingsFile read;
        QCOMPARE(read.deserialize(toVx(form), 0), form.size());
        QTEST(int(read.setting("s").toStdString().size()), "kept");
        QCOMPARE(read.setting("n").toInt32(), 7);
    }

    void scrambledFormRoundTripsAndSetsFlag()
    {
        SettingsFile tree;
        tree.setSetting("secret.word", Variant("swordfish"));
        tree.setSetting("n", Variant(0L)); // plain zeros must not become a zero run
        tree.setEncrypted(true);
        const VxByteArray form = serialized(tree);
        QVERIFY(!bytesOf(form).contains("swordfish"));
        SettingsFile read;
        QCOMPARE(read.deserialize(form, 0), int(form.size()));
        QCOMPARE(lines(read), (QStringList {"n=J:0", "secret.word=S:swordfish"}));
        // The empty scrambled tree is still 5 bytes with marker '#'.
        SettingsFile empty;
        empty.setEncrypted(true);
        QCOMPARE(serialized(empty).size(), size_t(5));
        QCOMPARE(serialized(empty)[0], '#');
    }
};

QTEST_GUILESS_MAIN(SettingsFileByteFormTest)
#include "settingsfilebyteformtest.moc"
