// SPDX-License-Identifier: MIT
#include "variantsamples.h"

#include <QTest>

#include <cmath>
#include <functional>
#include <limits>

using veltrax::Variant;

namespace
{
// The error text of a conversion, or the empty text when it succeeded. Conversions fail
// with VXRV_BADTYPE whatever the text.
QString failureOf(const std::function<void()>& call)
{
    try {
        call();
    } catch (const VxException& e) {
        return QString::fromStdString(e.text().toStdString()) + (e.resultValue() == VXRV_BADTYPE ? "" : " (other result value)");
    } catch (const std::exception& e) {
        return QStringLiteral("std: ") + QString::fromUtf8(e.what());
    }
    return QString();
}
#define FAILURE(call)                                                                                                                                          \
    failureOf([&] {                                                                                                                                            \
        call;                                                                                                                                                  \
    })

VxMatrix matrix(Eigen::Index r, Eigen::Index c, std::initializer_list<double> values)
{
    return VxMatrix(r, c, values);
}
} // namespace

class VariantTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void constructionPicksKind_data()
    {
        QTest::addColumn<Variant>("value");
        QTest::addColumn<int>("type");
        QTest::addColumn<QString>("name");

        QTest::newRow("default") << Variant() << int(Variant::Empty) << QString();
        QTest::newRow("bool") << Variant(true) << int(Variant::Bool) << "bool";
        QTest::newRow("float widens") << Variant(1.5f) << int(Variant::Double) << "double";
        QTest::newRow("double") << Variant(1.5) << int(Variant::Double) << "double";
        QTest::newRow("int") << Variant(-3) << int(Variant::Int32) << "int32_t";
        QTest::newRow("unsigned int") << Variant(3u) << int(Variant::Int32) << "int32_t";
        QTest::newRow("long") << Variant(-3L) << int(Variant::Int64) << "int64_t";
        QTest::newRow("unsigned long") << Variant(3UL) << int(Variant::Int64) << "int64_t";
        QTest::newRow("matrix") << Variant(VxMatrix(2, 2)) << int(Variant::Matrix) << "Matrix";
        QTest::newRow("tensor") << Variant(veltrax::Tensor()) << int(Variant::Tensor) << "Tensor";
        QTest::newRow("quaternion") << Variant(VxQuaternion()) << int(Variant::Quaternion) << "Quaternion";
        QTest::newRow("vector") << Variant(VxVector {1, 2}) << int(Variant::Vector) << "Vector";
        const double raw[] = {1, 2, 3};
        QTest::newRow("double pointer") << Variant(raw, 3) << int(Variant::Vector) << "Vector";
        QTest::newRow("VxIntArray") << Variant(VxIntArray {1, 2}) << int(Variant::IntList) << "Integer list";
        QTest::newRow("IntList") << Variant(veltrax::IntList {1, 2}) << int(Variant::IntList) << "Integer list";
        QTest::newRow("VxStringArray") << Variant(VxStringArray {"a"}) << int(Variant::LabelList) << "String list";
        QTest::newRow("LabelList") << Variant(labels({"a"})) << int(Variant::LabelList) << "String list";
        QTest::newRow("binary object") << Variant(veltrax::BinaryObject("ab", 2)) << int(Variant::BinaryObject) << "Binary object";
        QTest::newRow("matrix array") << Variant(veltrax::MatrixArray()) << int(Variant::MatrixArray) << "MatrixArray";
        // The other text constructors are covered in textLengthPicksStringKind.
        QTest::newRow("C string") << Variant("x") << int(Variant::ShortString) << "String";
    }

    void constructionPicksKind()
    {
        QFETCH(Variant, value);
        QFETCH(int, type);
        QCOMPARE(int(value.type()), type);
        QTEST(QString::fromStdString(value.typeName()), "name");
        QCOMPARE(value.empty(), type == Variant::Empty);
    }

    void textLengthPicksStringKind_data()
    {
        QTest::addColumn<int>("length");
        QTest::addColumn<int>("type");
        QTest::addColumn<int>("kept");

        QTest::newRow("empty") << 0 << int(Variant::ShortString) << 0;
        QTest::newRow("255") << 255 << int(Variant::ShortString) << 255;
        QTest::newRow("256") << 256 << int(Variant::LongString) << 256;
        QTest::newRow("16383") << 16383 << int(Variant::LongString) << 16383;
        QTest::newRow("20000 is cut") << 20000 << int(Variant::LongString) << 16383;
    }

    void textLengthPicksStringKind()
    {
        QFETCH(int, length);
        QFETCH(int, type);
        QFETCH(int, kept);
        std::string text;
        for (int i = 0; i < length; ++i)
            text.push_back(char('a' + i % 26));
        for (const Variant& v : {Variant(text), Variant(text.c_str()), Variant(VxString(text))}) {
            QCOMPARE(int(v.type()), type);
            QCOMPARE(v.toStdString(), text.substr(0, size_t(kept)));
        }
    }

    void textStopsAtZeroAndUnknownTypesHaveNoName()
    {
        QCOMPARE(Variant(std::string("ab\0cd", 5)).toStdString(), std::string("ab"));
        QCOMPARE(Variant::nameOfType('Z'), std::string());
        QCOMPARE(Variant::nameOfType(-1), std::string());
        QCOMPARE(Variant::nameOfType(Variant::LongString), std::string("String"));
    }

    void toBoolFollowsKind_data()
    {
        QTest::addColumn<Variant>("value");
        QTest::addColumn<bool>("expected");
        QTest::addColumn<QString>("error");

        QTest::newRow("empty fails") << Variant() << false << "Type does not allow conversion to bool";
        QTest::newRow("true") << Variant(true) << true << QString();
        QTest::newRow("double 0") << Variant(0.0) << false << QString();
        QTest::newRow("double -0") << Variant(-0.0) << false << QString();
        QTest::newRow("double NaN") << Variant(std::nan("")) << true << QString();
        QTest::newRow("int32 0") << Variant(0) << false << QString();
        QTest::newRow("int64 5") << Variant(5L) << true << QString();
        QTest::newRow("int list zeros") << Variant(veltrax::IntList {0, 0}) << false << QString();
        QTest::newRow("int list one set") << Variant(veltrax::IntList {0, 7}) << true << QString();
        QTest::newRow("empty matrix") << Variant(VxMatrix()) << false << QString();
        QTest::newRow("zero matrix") << Variant(VxMatrix(2, 2)) << false << QString();
        QTest::newRow("negative matrix") << Variant(matrix(1, 2, {0, -1})) << true << QString();
        QTest::newRow("vector") << Variant(VxVector {0, 0, 3}) << true << QString();
        QTest::newRow("zero tensor") << Variant(veltrax::Tensor({2})) << false << QString();
        QTest::newRow("matrix array") << Variant(veltrax::MatrixArray {VxMatrix(1, 1), matrix(1, 1, {2})}) << true << QString();
        QTest::newRow("binary object empty") << Variant(veltrax::BinaryObject()) << false << QString();
        QTest::newRow("binary object zero byte") << Variant(veltrax::BinaryObject("\0", 1)) << true << QString();
        QTest::newRow("identity quaternion") << Variant(VxQuaternion()) << true << QString();
        QTest::newRow("zero quaternion") << Variant(VxQuaternion(0, 0, 0, 0)) << false << QString();
        QTest::newRow("unnormalised quaternion") << Variant(VxQuaternion(1, 1, 0, 0)) << false << QString();
        QTest::newRow("text 0 is true") << Variant("0") << true << QString();
        QTest::newRow("empty text") << Variant("") << false << QString();
        QTest::newRow("labels last one empty") << Variant(labels({"b", ""})) << true << QString();
        QTest::newRow("labels all empty") << Variant(labels({"", ""})) << false << QString();
        QTest::newRow("labels last by case") << Variant(labels({"a", "B"})) << true << QString();
        QTest::newRow("no labels") << Variant(veltrax::LabelList()) << false << QString();
    }

    void toBoolFollowsKind()
    {
        QFETCH(Variant, value);
        QFETCH(bool, expected);
        QFETCH(QString, error);
        bool result = !expected;
        QCOMPARE(FAILURE(result = value.toBool()), error);
        if (error.isEmpty()) {
            QCOMPARE(result, expected);
            QCOMPARE(static_cast<bool>(value), expected);
        }
    }

    void toInt64RoundsAndChecksSize_data()
    {
        QTest::addColumn<Variant>("value");
        QTest::addColumn<qint64>("expected");
        QTest::addColumn<QString>("error");

        const QString typeError = QStringLiteral("Type does not allow conversion to scalar");
        const QString sizeError = QStringLiteral("Size does not allow conversion to scalar");
        QTest::newRow("empty") << Variant() << qint64(0) << typeError;
        QTest::newRow("bool") << Variant(true) << qint64(1) << QString();
        QTest::newRow("int32 sign-extended") << Variant(-5) << qint64(-5) << QString();
        QTest::newRow("int64") << Variant(1L << 40) << qint64(1) * (qint64(1) << 40) << QString();
        QTest::newRow("2.5 rounds up") << Variant(2.5) << qint64(3) << QString();
        QTest::newRow("-2.5 rounds down") << Variant(-2.5) << qint64(-3) << QString();
        QTest::newRow("2.49") << Variant(2.49) << qint64(2) << QString();
        QTest::newRow("huge double saturates") << Variant(1e300) << std::numeric_limits<qint64>::max() << QString();
        QTest::newRow("NaN is 0") << Variant(std::nan("")) << qint64(0) << QString();
        QTest::newRow("1x1 matrix") << Variant(matrix(1, 1, {-1.5})) << qint64(-2) << QString();
        QTest::newRow("2x1 matrix") << Variant(matrix(2, 1, {1, 2})) << qint64(0) << sizeError;
        QTest::newRow("one-matrix array") << Variant(veltrax::MatrixArray {matrix(1, 1, {4.5})}) << qint64(5) << QString();
        QTest::newRow("two-matrix array") << Variant(veltrax::MatrixArray {VxMatrix(1, 1), VxMatrix(1, 1)}) << qint64(0) << sizeError;
        QTest::newRow("one-element vector") << Variant(VxVector {6.5}) << qint64(7) << QString();
        QTest::newRow("empty vector") << Variant(VxVector()) << qint64(0) << sizeError;
        QTest::newRow("tensor truncates") << Variant(veltrax::Tensor({1}, {2.7})) << qint64(2) << QString();
        QTest::newRow("tensor truncates negative") << Variant(veltrax::Tensor({}, {-2.7})) << qint64(-2) << QString();
        QTest::newRow("two-element tensor") << Variant(veltrax::Tensor({2})) << qint64(0) << sizeError;
        QTest::newRow("one-element int list is unsigned") << Variant(veltrax::IntList {0xFFFFFFFFu}) << qint64(0xFFFFFFFF) << QString();
        QTest::newRow("two-element int list") << Variant(veltrax::IntList {1, 2}) << qint64(0) << sizeError;
        const char eight[] = "\x01\x02\x03\x04\x05\x06\x07\x08";
        QTest::newRow("8-byte object") << Variant(veltrax::BinaryObject(eight, 8)) << qint64(0x0807060504030201) << QString();
        QTest::newRow("7-byte object") << Variant(veltrax::BinaryObject(eight, 7)) << qint64(0) << sizeError;
        QTest::newRow("decimal text") << Variant(" -42") << qint64(-42) << QString();
        QTest::newRow("hex text") << Variant("0x1F") << qint64(31) << QString();
        QTest::newRow("text with tail") << Variant("12abc") << qint64(12) << QString();
        QTest::newRow("bad text") << Variant("abc") << qint64(0) << QString();
        QTest::newRow("one label") << Variant(labels({"17"})) << qint64(17) << QString();
        QTest::newRow("one empty label") << Variant(labels({""})) << qint64(0) << QString();
        QTest::newRow("two labels") << Variant(labels({"1", "2"})) << qint64(0) << sizeError;
        QTest::newRow("quaternion") << Variant(VxQuaternion()) << qint64(0) << typeError;
    }

    void toInt64RoundsAndChecksSize()
    {
        QFETCH(Variant, value);
        QFETCH(qint64, expected);
        QFETCH(QString, error);
        qint64 result = 0;
        QCOMPARE(FAILURE(result = value.toInt64()), error);
        QCOMPARE(result, error.isEmpty() ? expected : 0);
        // The rest of the family fails the same way.
        QCOMPARE(FAILURE(value.toInt32()), error);
        QCOMPARE(FAILURE(value.toUint32()), error);
        QCOMPARE(FAILURE(value.toUint64()), error);
        QCOMPARE(FAILURE(value.toDouble()), error);
        QCOMPARE(FAILURE(value.toFloat()), error);
    }

    void narrowConversionsKeepBitsOrSaturate_data()
    {
        QTest::addColumn<Variant>("value");
        QTest::addColumn<qint64>("int32");
        QTest::addColumn<quint64>("uint32");
        QTest::addColumn<quint64>("uint64");
        QTest::addColumn<double>("dbl");

        QTest::newRow("int32 -1") << Variant(-1) << qint64(-1) << quint64(0xFFFFFFFF) << quint64(0xFFFFFFFF) << -1.0;
        QTest::newRow("unsigned int max") << Variant(0xFFFFFFFFu) << qint64(-1) << quint64(0xFFFFFFFF) << quint64(0xFFFFFFFF) << -1.0;
        QTest::newRow("int64 -1") << Variant(-1L) << qint64(-1) << quint64(0xFFFFFFFF) << ~quint64(0) << -1.0;
        QTest::newRow("double 3e9") << Variant(3e9) << qint64(std::numeric_limits<int32_t>::max()) << quint64(3000000000u) << quint64(3000000000u) << 3e9;
        QTest::newRow("double -7.5") << Variant(-7.5) << qint64(-8) << quint64(0) << quint64(0) << -7.5;
        QTest::newRow("text 2.5") << Variant("2.5") << qint64(2) << quint64(2) << quint64(2) << 2.5;
    }

    void narrowConversionsKeepBitsOrSaturate()
    {
        QFETCH(Variant, value);
        QFETCH(double, dbl);
        QTEST(qint64(value.toInt32()), "int32");
        QTEST(quint64(value.toUint32()), "uint32");
        QTEST(quint64(value.toUint64()), "uint64");
        QCOMPARE(value.toDouble(), dbl);
        QCOMPARE(value.toFloat(), float(dbl));
    }

    void toStdStringAcceptsTextsAndSingleLabel_data()
    {
        QTest::addColumn<Variant>("value");
        QTest::addColumn<QString>("expected");
        QTest::addColumn<QString>("error");

        const QString error = QStringLiteral("Type does not allow conversion to String");
        QTest::newRow("short") << Variant("abc") << "abc" << QString();
        QTest::newRow("long") << Variant(std::string(300, 'x')) << QString(300, QLatin1Char('x')) << QString();
        QTest::newRow("one label") << Variant(labels({"lbl"})) << "lbl" << QString();
        QTest::newRow("one empty label") << Variant(labels({""})) << "" << QString();
        QTest::newRow("two labels") << Variant(labels({"a", "b"})) << "" << error;
        QTest::newRow("no labels") << Variant(veltrax::LabelList()) << "" << error;
        QTest::newRow("int") << Variant(5) << "" << error;
        QTest::newRow("empty") << Variant() << "" << error;
    }

    void toStdStringAcceptsTextsAndSingleLabel()
    {
        QFETCH(Variant, value);
        QFETCH(QString, expected);
        QFETCH(QString, error);
        std::string result;
        QCOMPARE(FAILURE(result = value.toStdString()), error);
        QCOMPARE(QString::fromStdString(result), expected);
        QCOMPARE(FAILURE(result = value.toVxString().toStdString()), error);
        QCOMPARE(QString::fromStdString(result), expected);
    }

    void toJsonStringFollowsTable_data()
    {
        QTest::addColumn<Variant>("value");
        QTest::addColumn<bool>("bare");
        QTest::addColumn<QString>("expected");

        QTest::newRow("true") << Variant(true) << false << "true";
        QTest::newRow("false bare") << Variant(false) << true << "false";
        QTest::newRow("double") << Variant(2.5) << false << "2.5";
        QTest::newRow("double 16 digits") << Variant(0.1 + 0.2) << false << "0.3";
        QTest::newRow("double exponent") << Variant(1e20) << false << "1e+20";
        QTest::newRow("int32 unsigned max prints signed") << Variant(0xFFFFFFFFu) << false << "-1";
        QTest::newRow("int64") << Variant(-9000000000L) << false << "-9000000000";
        QTest::newRow("int list unsigned") << Variant(veltrax::IntList {1, 0xFFFFFFFFu}) << false << "[1,4294967295]";
        QTest::newRow("empty int list") << Variant(veltrax::IntList()) << false << "[]";
        QTest::newRow("vector") << Variant(VxVector {1, 0.5}) << false << "[1,0.5]";
        QTest::newRow("quaternion") << Variant(VxQuaternion(1, 0, 0, 0)) << true << "[1,0,0,0]";
        QTest::newRow("labels always quoted") << Variant(labels({"a", "b c"})) << true << "[\"a\",\"b c\"]";
        QTest::newRow("text quoted") << Variant("hi") << false << "\"hi\"";
        QTest::newRow("text bare") << Variant("hi") << true << "hi";
        QTest::newRow("null stays bare") << Variant("null") << false << "null";
        QTest::newRow("Null is a text") << Variant("Null") << false << "\"Null\"";
        QTest::newRow("quote not escaped") << Variant("a\"b") << false << "\"a\"b\"";
        QTest::newRow("backslash not escaped") << Variant("a\\b") << false << "\"a\\b\"";
        QTest::newRow("matrix own text quoted") << Variant(matrix(2, 2, {1, 2, 3, 4})) << false << "\"[1,2;3,4]\"";
        QTest::newRow("matrix own text bare") << Variant(matrix(1, 2, {1, 2})) << true << "[1,2]";
        QTest::newRow("binary object hex") << Variant(veltrax::BinaryObject("\x01\xAB", 2)) << false << "\"01AB\"";
        QTest::newRow("tensor") << Variant(veltrax::Tensor({2}, {1, 2})) << false << "\"(2)[1,2]\"";
        QTest::newRow("matrix array") << Variant(veltrax::MatrixArray {matrix(1, 1, {3})}) << false << "\"{[3]}\"";
    }

    void toJsonStringFollowsTable()
    {
        QFETCH(Variant, value);
        QFETCH(bool, bare);
        QTEST(QString::fromStdString(value.toJsonString(bare)), "expected");
    }

    void toJsonStringOfEmptyFails()
    {
        QCOMPARE(FAILURE(Variant().toJsonString(false)), QStringLiteral("std: basic_string::_M_construct null not valid"));
        QVERIFY_EXCEPTION_THROWN(Variant().toJsonString(true), std::logic_error);
    }

    void writeContentsToStringFollowsTable_data()
    {
        QTest::addColumn<Variant>("value");
        QTest::addColumn<bool>("hex");
        QTest::addColumn<QString>("expected");

        // The plain texts of every kind are covered in textFormRoundTrips, which writes them
        // after the tag; these rows are what only the contents writer does.
        QTest::newRow("empty") << Variant() << false << "";
        QTest::newRow("bool N") << Variant(false) << true << "N";
        QTest::newRow("int32 hex") << Variant(255) << true << "0xFF";
        QTest::newRow("int32 hex negative") << Variant(-1) << true << "0xFFFFFFFF";
        QTest::newRow("int64 hex") << Variant(0xABCDEF012L) << true << "0xABCDEF012";
        QTest::newRow("int64 hex negative") << Variant(-1L) << true << "0xFFFFFFFFFFFFFFFF";
        QTest::newRow("text") << Variant("a b=c") << true << "a b=c";
        QTest::newRow("labels") << Variant(labels({"x", "q\"t"})) << false << "[\"x\",\"q\\\"t\"]";
    }

    void writeContentsToStringFollowsTable()
    {
        QFETCH(Variant, value);
        QFETCH(bool, hex);
        QFETCH(QString, expected);
        std::string text = "pre:";
        const int n = value.writeContentsToString(text, hex);
        QCOMPARE(QString::fromStdString(text), QStringLiteral("pre:") + expected);
        QCOMPARE(n, expected.size());
    }

    void textFormRoundTrips_data()
    {
        QTest::addColumn<Variant>("value");
        QTest::addColumn<QString>("text");

        QTest::newRow("empty") << Variant() << "";
        QTest::newRow("bool") << Variant(true) << "B:Y";
        QTest::newRow("double") << Variant(2.5) << "F:2.5";
        QTest::newRow("int32") << Variant(-7) << "I:-7";
        QTest::newRow("int64") << Variant(1L << 40) << "J:1099511627776";
        QTest::newRow("short text") << Variant("hello world") << "S:hello world";
        QTest::newRow("long text") << Variant(std::string(300, 'z')) << QStringLiteral("T:") + QString(300, QLatin1Char('z'));
        QTest::newRow("int list") << Variant(veltrax::IntList {1, 2}) << "L:[1,2]";
        QTest::newRow("labels") << Variant(labels({"a b", "c\\d"})) << "U:[\"a b\",\"c\\\\d\"]";
        QTest::newRow("matrix") << Variant(matrix(2, 3, {1, 2, 3, 4, 5, 0.1})) << "M:[1,2,3;4,5,0.1]";
        QTest::newRow("vector") << Variant(VxVector {1e-300, -2}) << "V:[1e-300,-2]";
        QTest::newRow("quaternion") << Variant(VxQuaternion(0.5, 0.5, -0.5, 0.5)) << "Q:[0.5,0.5,-0.5,0.5]";
        QTest::newRow("tensor") << Variant(veltrax::Tensor({2, 1, 2}, {1, 2, 3, 4})) << "Y:(2,1,2)[1,2,3,4]";
        QTest::newRow("rank 0 tensor") << Variant(veltrax::Tensor({}, {9})) << "Y:()[9]";
        QTest::newRow("matrix array") << Variant(veltrax::MatrixArray {matrix(1, 2, {1, 2}), matrix(1, 1, {3})}) << "A:{[1,2],[3]}";
        QTest::newRow("binary object") << Variant(veltrax::BinaryObject("\0\xff", 2)) << "N:00FF";
    }

    void textFormRoundTrips()
    {
        QFETCH(Variant, value);
        QFETCH(QString, text);
        std::string written;
        QCOMPARE(value.writeToString(written), text.size());
        QCOMPARE(QString::fromStdString(written), text);
        Variant read(12345);
        QCOMPARE(read.readFromString(written.c_str()), int(written.size()));
        QVERIFY2(read == value, written.c_str());
        QCOMPARE(int(read.type()), int(value.type()));
    }

    void readFromStringEdgeCases_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<bool>("hex");
        QTest::addColumn<Variant>("expected");

        QTest::newRow("bool y") << "B:y" << false << Variant(true);
        QTest::newRow("bool 1") << "B:1" << false << Variant(true);
        QTest::newRow("bool other") << "B:T" << false << Variant(false);
        QTest::newRow("bool without value") << "B" << false << Variant(false);
        QTest::newRow("text CRLF stripped") << "S:abc\r\n" << false << Variant("abc");
        QTest::newRow("text keeps inner CR") << "S:a\rb" << false << Variant("a\rb");
        QTest::newRow("text hex") << "S:414243" << true << Variant("ABC");
        QTest::newRow("short text cut") << QStringLiteral("S:") + QString(300, QLatin1Char('q')) << false << Variant(std::string(255, 'q'));
        QTest::newRow("int32 hex") << "I:0x10" << false << Variant(16);
        QTest::newRow("int32 wraps") << "I:4294967295" << false << Variant(-1);
        QTest::newRow("int64 negative") << "J:-5" << false << Variant(-5L);
        QTest::newRow("double exponent") << "F:-1.5e3" << false << Variant(-1500.0);
        QTest::newRow("double garbage is 0") << "F:x" << false << Variant(0.0);
        QTest::newRow("matrix ragged rows padded") << "M:[1;2,3]" << false << Variant(matrix(2, 2, {1, 0, 2, 3}));
    }

    void readFromStringEdgeCases()
    {
        QFETCH(QString, text);
        QFETCH(bool, hex);
        QFETCH(Variant, expected);
        Variant v;
        v.readFromString(text.toUtf8().constData(), hex);
        QCOMPARE(int(v.type()), int(expected.type()));
        QVERIFY(v == expected);
    }

    void referenceReadsAndWritesCallersObject()
    {
        int number = 5;
        Variant v = Variant::fromReference(number);
        QVERIFY(v.isReference(&number));
        QCOMPARE(v.toInt32(), 5);
        number = 6;
        QCOMPARE(v.toInt64(), 6);
        v = Variant(7);
        QCOMPARE(number, 7);
        v.setValueKeepType(Variant(8.4));
        QCOMPARE(number, 8);

        veltrax::IntList list {1};
        Variant l = Variant::fromReference(list);
        l = Variant(veltrax::IntList {4, 5});
        QCOMPARE(list.size(), size_t(2));

        // A copy owns its value.
        Variant copy(v);
        QVERIFY(!copy.isReference());
        copy = Variant(1);
        QCOMPARE(number, 8);

        // A value of another kind makes the variant let go of the reference.
        v = Variant("text");
        QVERIFY(!v.isReference(&number));
        QCOMPARE(number, 8);

        // Clearing forgets the reference without freeing or changing the object.
        VxQuaternion q(0, 1, 0, 0);
        {
            Variant v = Variant::fromReference(q);
            v.clear();
            QVERIFY(v.empty());
            QVERIFY(!v.isReference(&q));
        }
        QCOMPARE(q.x(), 1.0);
    }

    void setValueKeepTypeConvertsAndZeroValueResets_data()
    {
        QTest::addColumn<Variant>("target");
        QTest::addColumn<Variant>("source");
        QTest::addColumn<Variant>("expected");

        QTest::newRow("double into int") << Variant(0) << Variant(2.5) << Variant(3);
        QTest::newRow("int into bool") << Variant(false) << Variant(2) << Variant(true);
        QTest::newRow("int into text") << Variant("x") << Variant(42) << Variant("42");
        QTest::newRow("text into double") << Variant(0.0) << Variant("1.25") << Variant(1.25);
        QTest::newRow("anything into empty") << Variant() << Variant(veltrax::IntList {1}) << Variant(veltrax::IntList {1});
        QTest::newRow("vector into quaternion") << Variant(VxQuaternion()) << Variant(VxVector {0, 1, 0, 0}) << Variant(VxQuaternion(0, 1, 0, 0));
        // An empty source: zeroValue(), which resets in place.
        QTest::newRow("zero: bool") << Variant(true) << Variant() << Variant(false);
        QTest::newRow("zero: int64") << Variant(9L) << Variant() << Variant(0L);
        QTest::newRow("zero: text") << Variant("abc") << Variant() << Variant("");
        QTest::newRow("zero: int list") << Variant(veltrax::IntList {1, 2}) << Variant() << Variant(veltrax::IntList());
        QTest::newRow("zero: labels") << Variant(labels({"a"})) << Variant() << Variant(veltrax::LabelList());
        QTest::newRow("zero: quaternion is identity") << Variant(VxQuaternion(0, 0, 1, 0)) << Variant() << Variant(VxQuaternion(1, 0, 0, 0));
        QTest::newRow("zero: matrix keeps shape") << Variant(matrix(1, 2, {1, 2})) << Variant() << Variant(VxMatrix(1, 2));
    }

    void setValueKeepTypeConvertsAndZeroValueResets()
    {
        QFETCH(Variant, target);
        QFETCH(Variant, source);
        QFETCH(Variant, expected);
        if (source.empty())
            target.zeroValue();
        else
            target.setValueKeepType(source);
        QCOMPARE(int(target.type()), int(expected.type()));
        QVERIFY(target == expected);
    }

    void equalityAndFuzzyEquality_data()
    {
        QTest::addColumn<Variant>("a");
        QTest::addColumn<Variant>("b");
        QTest::addColumn<bool>("equal");
        QTest::addColumn<bool>("fuzzyEqual");

        QTest::newRow("same int") << Variant(1) << Variant(1) << true << true;
        QTest::newRow("int32 and int64") << Variant(1) << Variant(1L) << false << true;
        QTest::newRow("int and near double") << Variant(1) << Variant(1.0005) << false << true;
        QTest::newRow("doubles apart") << Variant(1.0) << Variant(1.01) << false << false;
        QTest::newRow("short and long text") << Variant("a") << [] {
            Variant v;
            v.set(Variant::LongString, "a");
            return v;
        }() << true << true;
        QTest::newRow("vectors near") << Variant(VxVector {1, 2}) << Variant(VxVector {1.0001, 2}) << false << true;
        QTest::newRow("vectors of other size") << Variant(VxVector {1}) << Variant(VxVector {1, 2}) << false << false;
        QTest::newRow("empty and empty") << Variant() << Variant() << true << true;
        QTest::newRow("text and int") << Variant("1") << Variant(1) << false << false;
    }

    void equalityAndFuzzyEquality()
    {
        QFETCH(Variant, a);
        QFETCH(Variant, b);
        QFETCH(bool, equal);
        QFETCH(bool, fuzzyEqual);
        QCOMPARE(a == b, equal);
        QCOMPARE(b == a, equal);
        QCOMPARE(a.fuzzyIsEqual(b, 0.001), fuzzyEqual);
        QCOMPARE(b.fuzzyIsEqual(a, 0.001), fuzzyEqual);
    }

    void containerConversions()
    {
        QCOMPARE(Variant(matrix(1, 3, {1, 2, 3})).toVector(), (VxVector {1, 2, 3}));
        QCOMPARE(Variant(VxVector {1, 2}).toMatrix(), matrix(2, 1, {1, 2}));
        QCOMPARE(Variant(matrix(2, 2, {1, 2, 3, 4})).toTensor(), veltrax::Tensor({2, 2}, {1, 2, 3, 4}));
        QCOMPARE(Variant(veltrax::Tensor({2, 2}, {1, 2, 3, 4})).toMatrix(), matrix(2, 2, {1, 2, 3, 4}));
        QCOMPARE(Variant("ab").toLabelList().size(), size_t(1));
        QCOMPARE(Variant(VxIntArray {-1, 2}).toVxIntArray(), (VxIntArray {-1, 2}));
        QCOMPARE(Variant(VxStringArray {"p", "q"}).toVxStringArray(), (VxStringArray {"p", "q"}));
        QCOMPARE(Variant(5).toIntList(), (veltrax::IntList {5}));
        QCOMPARE(FAILURE(Variant(5).toQuaternion()), QStringLiteral("Type does not allow conversion to Quaternion"));
        QCOMPARE(FAILURE(Variant(1.0).toLabelList()), QStringLiteral("Type does not allow conversion to String list"));
        QCOMPARE(FAILURE(Variant(matrix(2, 2, {})).toVector()), QStringLiteral("Type does not allow conversion to Vector"));
    }
};

QTEST_GUILESS_MAIN(VariantTest)
#include "varianttest.moc"
