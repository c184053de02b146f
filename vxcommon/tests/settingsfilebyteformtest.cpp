// SPDX-License-Identifier: MIT
#include "settingsfile.h"

#include <QRandomGenerator>
#include <QTest>

#include <functional>

using veltrax::SettingsFile;
using veltrax::Variant;

Q_DECLARE_METATYPE(veltrax::Variant)

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

veltrax::LabelList labels(std::initializer_list<const char*> texts)
{
    veltrax::LabelList l;
    for (const char* t : texts)
        l.append(veltrax::Label(t));
    return l;
}

// One value of every kind, each with some content.
QList<QPair<QByteArray, Variant>> everyKind()
{
    return {
        {"empty", Variant()},
        {"bool", Variant(true)},
        {"double", Variant(-1.25e-7)},
        {"int32", Variant(-123456)},
        {"int64", Variant(-1234567890123L)},
        {"int list", Variant(veltrax::IntList {0, 1, 0xFFFFFFFFu})},
        {"empty int list", Variant(veltrax::IntList())},
        {"matrix", Variant(VxMatrix(2, 3, {1, 2, 3, 4, 5, 6}))},
        {"binary object", Variant(veltrax::BinaryObject("a\0b\xff", 4))},
        {"quaternion", Variant(VxQuaternion(0.5, -0.5, 0.5, -0.5))},
        {"short string", Variant("xy")},
        {"empty string", Variant("")},
        {"long string", Variant(std::string(16383, 'L'))},
        {"label list", Variant(labels({"one", "two", std::string(255, 'w').c_str()}))},
        {"empty label list", Variant(veltrax::LabelList())},
        {"vector", Variant(VxVector {1, -2, 3.5})},
        {"tensor", Variant(veltrax::Tensor({2, 2, 1}, {1, 2, 3, 4}))},
        {"rank 0 tensor", Variant(veltrax::Tensor({}, {7}))},
        {"matrix array", Variant(veltrax::MatrixArray {VxMatrix(1, 2, {1, 2}), VxMatrix(0, 0)})},
    };
}

VxException vxFailure(const std::function<void()>& call)
{
    try {
        call();
    } catch (const VxException& e) {
        return e;
    }
    return VxException(VXRV_OK, "");
}
} // namespace

class SettingsFileByteFormTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void workedExampleIsFourteenBytes();
    void emptyTreeIsFiveBytes();
    void emptySubTreeWritesNothing();
    void readingKeepsExistingSubTreesEmptied();
    void emptyValueIsOneTagByte();
    void valueLengthsFollowKinds_data();
    void valueLengthsFollowKinds();
    void everyKindRoundTrips_data();
    void everyKindRoundTrips();
    void nestedNamesRoundTrip();
    void readsAtOffsetAndLeavesTheRest();
    void firstByteOtherThanHashIsPlain();
    void namesDifferingInCaseLandOnOneSetting();
    void sizeErrorsLeaveTreeUnchanged_data();
    void sizeErrorsLeaveTreeUnchanged();
    void smallCountIsNeverRejectedForSize();
    void recordPastEndIsOutOfRange_data();
    void recordPastEndIsOutOfRange();
    void everyTruncationFailsCleanlyOrReads_data();
    void everyTruncationFailsCleanlyOrReads();
    void mutatedFormsFailCleanlyOrRead();
    void labelListReadingRules_data();
    void labelListReadingRules();
    void overlongStringIsCutButConsumed_data();
    void overlongStringIsCutButConsumed();
    void unknownTagConsumesTagOnly();
    void scrambledFormRoundTripsAndSetsFlag();
    void scrambledFormRejectsLongZeroRun();
    void readingMarksTreeUnmodified();
    void writerKeepsBytesAlreadyInOutput();
};

void SettingsFileByteFormTest::workedExampleIsFourteenBytes()
{
    SettingsFile tree;
    tree.setSetting("abc", Variant("xy"));
    const QByteArray expected("\x2A\x01\x00\x00\x00\x57"
                              "abc\x00\x53xy\x00",
        14);
    QCOMPARE(bytesOf(serialized(tree)), expected);

    SettingsFile read;
    QCOMPARE(read.deserialize(toVx(expected), 0), 14);
    QCOMPARE(read.setting("abc").toStdString(), std::string("xy"));
    QCOMPARE(read.size(), size_t(1));
}

void SettingsFileByteFormTest::emptyTreeIsFiveBytes()
{
    const QByteArray expected("\x2A\x00\x00\x00\x00", 5);
    QCOMPARE(bytesOf(serialized(SettingsFile())), expected);
    SettingsFile read;
    read.setSetting("old", Variant(1));
    QCOMPARE(read.deserialize(toVx(expected), 0), 5);
    QVERIFY(read.empty());
}

void SettingsFileByteFormTest::emptySubTreeWritesNothing()
{
    SettingsFile tree;
    tree.findSubTreeRef("a.b");
    QCOMPARE(serialized(tree).size(), size_t(5));
    SettingsFile fresh;
    fresh.deserialize(serialized(tree), 0);
    QVERIFY(!fresh.hasSubTree("a"));
}

void SettingsFileByteFormTest::readingKeepsExistingSubTreesEmptied()
{
    SettingsFile target;
    target.setSetting("keep.x", Variant(1));
    SettingsFile source;
    source.setSetting("y", Variant(2));
    target.deserialize(serialized(source), 0);
    QVERIFY(target.hasSubTree("keep", true));
    QVERIFY(!target.hasSubTree("keep", false));
    QVERIFY(!target.hasSetting("keep.x"));
    QCOMPARE(target.setting("y").toInt32(), 2);
}

void SettingsFileByteFormTest::emptyValueIsOneTagByte()
{
    SettingsFile tree;
    tree.setSetting("e", Variant());
    const QByteArray expected("\x2A\x01\x00\x00\x00W"
                              "e\x00\x00",
        9);
    QCOMPARE(bytesOf(serialized(tree)), expected);
    // The value reader wants two bytes before it reads anything, so an Empty value in the
    // very last byte is left unread and not counted.
    SettingsFile read;
    QCOMPARE(read.deserialize(toVx(expected), 0), 8);
    QVERIFY(read.hasSetting("e"));
    QVERIFY(read.setting("e").empty());
    // Followed by anything, it is read and counted.
    QCOMPARE(read.deserialize(toVx(expected + "!"), 0), 9);
}

void SettingsFileByteFormTest::valueLengthsFollowKinds_data()
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

void SettingsFileByteFormTest::valueLengthsFollowKinds()
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

void SettingsFileByteFormTest::everyKindRoundTrips_data()
{
    QTest::addColumn<Variant>("value");
    for (const auto& kind : everyKind())
        QTest::newRow(kind.first.constData()) << kind.second;
}

void SettingsFileByteFormTest::everyKindRoundTrips()
{
    QFETCH(Variant, value);
    SettingsFile tree;
    tree.setSetting("v", value);
    tree.setSetting("z.after", Variant(1)); // subtrees come last: an Empty value is not the last byte
    const VxByteArray form = serialized(tree);
    SettingsFile read;
    QCOMPARE(read.deserialize(form, 0), int(form.size()));
    const Variant back = read.setting("v");
    QCOMPARE(int(back.type()), int(value.type()));
    QVERIFY(back == value);

    // And the value on its own, read over a variant of another kind.
    VxByteArray alone;
    value.serialize(alone);
    alone.append("tail", 4);
    Variant other(veltrax::IntList {9});
    QCOMPARE(other.deserialize(alone, 0), int(alone.size()) - 4);
    QVERIFY(other == value);
}

void SettingsFileByteFormTest::nestedNamesRoundTrip()
{
    SettingsFile tree;
    tree.setSetting("a.b.rate", Variant(2.5));
    tree.setSetting("a.x", Variant(1));
    tree.setSetting("top", Variant("t"));
    tree.setSetting("a.b.c.d", Variant(true));
    tree.setSetting("z.b.rate", Variant(3.5));
    SettingsFile read;
    read.deserialize(serialized(tree), 0);
    QCOMPARE(read.flattened().size(), size_t(5));
    QCOMPARE(read.setting("a.b.rate").toDouble(), 2.5);
    QCOMPARE(read.setting("z.b.rate").toDouble(), 3.5);
    QCOMPARE(read.setting("a.b.c.d").toBool(), true);
    QCOMPARE(read.subTree("a.b").getFullName("rate"), std::string("a.b.rate"));
    // Names as stored; the subtree's records carry their path.
    const QByteArray bytes = bytesOf(serialized(tree));
    QVERIFY(bytes.contains(QByteArray("Wa.b.rate\0F", 11)));
}

void SettingsFileByteFormTest::readsAtOffsetAndLeavesTheRest()
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
    QCOMPARE(read.setting("a").toInt32(), 1);
    QVERIFY(!read.hasSetting("b"));
    const int m = read.deserialize(all, 6 + n);
    QCOMPARE(size_t(6 + n + m), all.size() - 7);
    QCOMPARE(read.setting("b").toStdString(), std::string("two"));
    QVERIFY(!read.hasSetting("a"));
}

void SettingsFileByteFormTest::firstByteOtherThanHashIsPlain()
{
    QByteArray form("\x2A\x01\x00\x00\x00WQ\x00I\x05\x00\x00\x00", 13);
    form[0] = '!';
    SettingsFile read;
    read.setEncrypted(true);
    QCOMPARE(read.deserialize(toVx(form), 0), 13);
    QCOMPARE(read.setting("q").toInt32(), 5);
    QVERIFY(!read.isEncrypted());
}

void SettingsFileByteFormTest::namesDifferingInCaseLandOnOneSetting()
{
    const QByteArray form("*\x02\x00\x00\x00WRate\x00I\x01\x00\x00\x00Wrate\x00I\x02\x00\x00\x00", 27);
    SettingsFile read;
    QCOMPARE(read.deserialize(toVx(form), 0), 27);
    QCOMPARE(read.size(), size_t(1));
    QCOMPARE(read.setting("RATE").toInt32(), 2);
    QCOMPARE(read.settingLabels()[0].toStdString(), std::string("Rate"));

    const QByteArray nested("*\x02\x00\x00\x00WA.x\x00I\x01\x00\x00\x00Wa.y\x00I\x02\x00\x00\x00", 25);
    read.deserialize(toVx(nested), 0);
    QCOMPARE(read.subTrees().size(), size_t(1));
    QCOMPARE(read.subTree("a").size(), size_t(2));
}

void SettingsFileByteFormTest::sizeErrorsLeaveTreeUnchanged_data()
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
    QByteArray count21("*\x15\0\0\0", 5);
    count21.append(QByteArray(7 * 21 - 6, 'W'));
    QTest::newRow("21 records in 146 bytes") << count21 << 0 << int(VXRV_DATAOVERFLOW) << tooMany;
    QTest::newRow("huge count") << QByteArray("*\xff\xff\xff\xff", 5) << 0 << int(VXRV_DATAOVERFLOW) << tooMany;
}

void SettingsFileByteFormTest::sizeErrorsLeaveTreeUnchanged()
{
    QFETCH(QByteArray, form);
    QFETCH(int, offset);
    QFETCH(int, result);
    QFETCH(QString, text);
    SettingsFile tree;
    tree.setSetting("kept", Variant(1));
    const VxException e = vxFailure([&] {
        tree.deserialize(toVx(form), offset);
    });
    QCOMPARE(int(e.resultValue()), result);
    QCOMPARE(QString::fromStdString(e.text().toStdString()), text);
    QCOMPARE(tree.setting("kept").toInt32(), 1);
}

void SettingsFileByteFormTest::smallCountIsNeverRejectedForSize()
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

void SettingsFileByteFormTest::recordPastEndIsOutOfRange_data()
{
    QTest::addColumn<QByteArray>("form");
    QTest::newRow("record at last byte") << QByteArray("*\x01\0\0\0W", 6);
    QTest::newRow("name without terminator") << QByteArray("*\x01\0\0\0Wabc", 9);
    QTest::newRow("second record missing") << QByteArray("*\x02\0\0\0Wa\0B\x01", 10);
    QTest::newRow("double payload short") << QByteArray("*\x01\0\0\0Wa\0F\0\0\0", 12);
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

void SettingsFileByteFormTest::recordPastEndIsOutOfRange()
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
    // Only records before the failing one are stored.
    QCOMPARE(tree.size(), size_t(QByteArray(QTest::currentDataTag()) == "second record missing" ? 1 : 0));
}

void SettingsFileByteFormTest::everyTruncationFailsCleanlyOrReads_data()
{
    QTest::addColumn<Variant>("value");
    QTest::addColumn<bool>("scrambled");
    for (const auto& kind : everyKind()) {
        QTest::newRow(kind.first.constData()) << kind.second << false;
        QTest::newRow((kind.first + " scrambled").constData()) << kind.second << true;
    }
}

void SettingsFileByteFormTest::everyTruncationFailsCleanlyOrReads()
{
    QFETCH(Variant, value);
    QFETCH(bool, scrambled);
    SettingsFile tree;
    tree.setSetting("first.x", Variant(3));
    tree.setSetting("value", value);
    tree.setEncrypted(scrambled);
    const VxByteArray form = serialized(tree);
    for (size_t cut = 0; cut <= form.size(); ++cut) {
        // A copy of exactly `cut` bytes, so that a sanitizer sees any read past it.
        const VxByteArray part(form.data(), cut);
        SettingsFile read;
        try {
            const int n = read.deserialize(part, 0);
            QVERIFY(n >= 0 && size_t(n) <= cut);
        } catch (const VxException& e) {
            QVERIFY2(e.resultValue() == VXRV_INSUFFICIENTDATA || e.resultValue() == VXRV_DATAOVERFLOW, e.what());
        } catch (const std::out_of_range& e) {
            QCOMPARE(QString::fromUtf8(e.what()), QStringLiteral("index out of range"));
        }
    }
}

void SettingsFileByteFormTest::mutatedFormsFailCleanlyOrRead()
{
    SettingsFile tree;
    int i = 0;
    for (const auto& kind : everyKind()) {
        if (kind.second.type() != Variant::LongString) // keep the form small enough to mutate often
            tree.setSetting("k" + std::to_string(i++) + ".v", kind.second);
    }
    const VxByteArray valid = serialized(tree);
    QRandomGenerator random(7);
    for (int round = 0; round < 3000; ++round) {
        VxByteArray form(valid.data(), valid.size());
        const int flips = 1 + int(random.bounded(4));
        for (int f = 0; f < flips; ++f) {
            const size_t at = random.bounded(quint32(form.size()));
            // Mostly small numbers and lengths: those steer the reader furthest.
            form[at] = char(random.bounded(2) ? random.bounded(256) : random.bounded(4));
        }
        const VxByteArray exact(form.data(), random.bounded(2) ? form.size() : random.bounded(quint32(form.size())));
        SettingsFile read;
        try {
            const int n = read.deserialize(exact, 0);
            QVERIFY(n >= 0 && size_t(n) <= exact.size());
            VxByteArray again;
            read.serialize(again); // whatever was read can be written
        } catch (const VxException& e) {
            QVERIFY2(e.resultValue() == VXRV_INSUFFICIENTDATA || e.resultValue() == VXRV_DATAOVERFLOW, e.what());
        } catch (const std::out_of_range& e) {
            QCOMPARE(QString::fromUtf8(e.what()), QStringLiteral("index out of range"));
        }
    }
}

void SettingsFileByteFormTest::labelListReadingRules_data()
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

void SettingsFileByteFormTest::labelListReadingRules()
{
    QFETCH(QByteArray, payload);
    QFETCH(QStringList, expected);
    QFETCH(int, consumed);
    veltrax::LabelList list {veltrax::Label("old")};
    QCOMPARE(list.deserialize(payload.constData(), payload.constData() + payload.size()), consumed);
    QStringList got;
    for (const auto& l : list)
        got << QString::fromStdString(l.toStdString());
    QCOMPARE(got, expected);
}

void SettingsFileByteFormTest::overlongStringIsCutButConsumed_data()
{
    QTest::addColumn<char>("tag");
    QTest::addColumn<int>("length");
    QTest::addColumn<int>("kept");
    QTest::newRow("short string of 300") << 'S' << 300 << 255;
    QTest::newRow("long string of 20000") << 'T' << 20000 << 16383;
}

void SettingsFileByteFormTest::overlongStringIsCutButConsumed()
{
    QFETCH(char, tag);
    QFETCH(int, length);
    QFETCH(int, kept);
    QByteArray form("*\x02\0\0\0Ws\0", 8);
    form.append(tag);
    form.append(QByteArray(length, 'k'));
    form.append('\0');
    form.append(QByteArray("Wn\0I\x07\0\0\0", 8));
    SettingsFile read;
    QCOMPARE(read.deserialize(toVx(form), 0), form.size());
    QCOMPARE(read.setting("s").toStdString().size(), size_t(kept));
    QCOMPARE(read.setting("n").toInt32(), 7);
}

void SettingsFileByteFormTest::unknownTagConsumesTagOnly()
{
    const QByteArray form("*\x02\0\0\0Wa\0ZWb\0B\x01", 14);
    SettingsFile read;
    QCOMPARE(read.deserialize(toVx(form), 0), 14);
    QCOMPARE(int(read.setting("a").type()), int('Z'));
    QCOMPARE(read.setting("b").toBool(), true);
    // It is written back as it came.
    QCOMPARE(bytesOf(serialized(read)).size(), form.size());
}

void SettingsFileByteFormTest::scrambledFormRoundTripsAndSetsFlag()
{
    SettingsFile tree;
    tree.setSetting("secret.word", Variant("swordfish"));
    tree.setSetting("n", Variant(0L)); // plain zeros must not become a zero run
    tree.setEncrypted(true);
    const VxByteArray form = serialized(tree);
    QCOMPARE(form[0], '#');
    QVERIFY(!bytesOf(form).contains("swordfish"));
    SettingsFile read;
    QCOMPARE(read.deserialize(form, 0), int(form.size()));
    QVERIFY(read.isEncrypted());
    QCOMPARE(read.setting("secret.word").toStdString(), std::string("swordfish"));
    QCOMPARE(read.setting("n").toInt64(), int64_t(0));
    // The empty scrambled tree is still 5 bytes with marker '#'.
    SettingsFile empty;
    empty.setEncrypted(true);
    QCOMPARE(serialized(empty).size(), size_t(5));
    QCOMPARE(serialized(empty)[0], '#');
}

void SettingsFileByteFormTest::scrambledFormRejectsLongZeroRun()
{
    QByteArray form("#\x01\x02\x03\x04", 5);
    form.append(QByteArray(8, '\0'));
    SettingsFile tree;
    tree.setSetting("kept", Variant(1));
    const VxException e = vxFailure([&] {
        tree.deserialize(toVx(form), 0);
    });
    QCOMPARE(e.resultValue(), VXRV_DATAOVERFLOW);
    QCOMPARE(QString::fromStdString(e.text().toStdString()), QStringLiteral("Unacceptably long stretch of empty elements"));
    QVERIFY(tree.hasSetting("kept"));
    QVERIFY(tree.isEncrypted()); // the flag follows the marker already
}

void SettingsFileByteFormTest::readingMarksTreeUnmodified()
{
    SettingsFile source;
    source.setSetting("a.b", Variant(1));
    SettingsFile read;
    read.setSetting("x.y", Variant(2));
    QVERIFY(read.isModified());
    read.deserialize(serialized(source), 0);
    QVERIFY(!read.isModified());
    QVERIFY(!read.subTree("a").isModified());
}

void SettingsFileByteFormTest::writerKeepsBytesAlreadyInOutput()
{
    SettingsFile tree;
    tree.setSetting("k", Variant(true));
    VxByteArray out("head", 4);
    tree.serialize(out);
    QCOMPARE(bytesOf(out), QByteArray("head*\x01\0\0\0Wk\0B\x01", 14));
}

QTEST_GUILESS_MAIN(SettingsFileByteFormTest)
#include "settingsfilebyteformtest.moc"
