// SPDX-License-Identifier: MIT
//
// The vxa program as users run it: files and pipes, exit codes, one-line errors.
#include "testhelpers.h"

#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

namespace
{

// Every kind that the byte form and the text form carry exactly.
const QByteArray allKinds = "; test tree\n"
                            "device.name=S:sensor \"left\" = 1\n"
                            "device.serial=I:-42\n"
                            "device.counter=J:9007199254740993\n"
                            "device.rate=F:2.5\n"
                            "device.scale=F:3\n"
                            "device.enabled=B:Y\n"
                            "device.channels=U:[\"acc\",\"gyr\",\"mag\"]\n"
                            "device.ids=L:[1,2,4294967295]\n"
                            "device.offset=V:[0.5,-1.25,3]\n"
                            "device.deep.er.still=S:x\n"
                            "Top=B:N\n";

// Values whose JSON text reads back as the same kind (JSON has no 32-bit integers and
// writes integral doubles without a point).
const QByteArray jsonSafe = "GuiHelpersDemo.GuiHelpersDemo.v2021_1_2.date=J:1627894800\n"
                            "GuiHelpersDemo.GuiHelpersDemo.v2021_1_2.url=S:http://127.0.0.1/x.run\n"
                            "GuiHelpersDemo.GuiHelpersDemo.v2021_1_2.beta=B:N\n"
                            "GuiHelpersDemo.GuiHelpersDemo.v2022_0_0.beta=B:Y\n"
                            "fw.versions=U:[\"v4_2_0\",\"v5_0_0\"]\n"
                            "gain=F:0.125\n";

/** A command line without quoting: words split at spaces. */
QStringList words(const char* line)
{
    return QString::fromLatin1(line).split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

} // namespace

class VxaToolTest : public QObject
{
    Q_OBJECT

private:
    struct Result {
        int exitCode = -1;
        QByteArray out;
        QByteArray err;
    };

    Result vxa(const QStringList& arguments, const QByteArray& input = QByteArray())
    {
        QProcess process;
        process.setWorkingDirectory(m_dir.path());
        process.start(QStringLiteral(VXA_PROGRAM), arguments);
        process.write(input);
        process.closeWriteChannel();
        Result result;
        if (!process.waitForFinished(20000))
            return result; // not started, or hanging: the QProcess kills it as it goes
        // A crash is not an exit code: keep -1 then.
        if (process.exitStatus() == QProcess::NormalExit)
            result.exitCode = process.exitCode();
        result.out = process.readAllStandardOutput();
        result.err = process.readAllStandardError();
        return result;
    }

    /** The output of a successful run of @p command on @p input, or why it failed. */
    QByteArray output(const char* command, const QByteArray& input)
    {
        const Result result = vxa(words(command), input);
        return result.exitCode == 0 ? result.out : QByteArray("(failed: " + result.err + ")");
    }
    QByteArray canonical(const QByteArray& vxaText) { return output("convert --from vxa", vxaText); }
    QByteArray bytesOf(const QByteArray& vxaText) { return output("convert --from vxa --to bytes", vxaText); }

    QTemporaryDir m_dir;

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_dir.isValid()); }

    void roundTripKeepsTheTree_data()
    {
        QTest::addColumn<QByteArray>("tree");
        QTest::addColumn<QStringList>("formats");
        // Each form's own round trip is covered in settingsfile*formtest and settingsfilejsontest:
        // these rows check the tool's chaining of formats, named or taken from extensions.
        QTest::newRow("vxa > bytes > vxa") << allKinds << words("bytes");
        QTest::newRow("vxa > json > bytes > vxa") << jsonSafe << words("json bytes");
        QTest::newRow("empty tree through json") << QByteArray() << words("json bytes");
    }
    void roundTripKeepsTheTree()
    {
        QFETCH(QByteArray, tree);
        QFETCH(QStringList, formats);
        // Through pipes, the format named on the command line.
        QByteArray data = tree;
        QString from = QStringLiteral("vxa");
        for (const QString& to : formats + words("vxa")) {
            const Result step = vxa(words("convert --from") << from << QStringLiteral("--to") << to, data);
            QVERIFY2(step.exitCode == 0, step.err.constData());
            data = step.out;
            from = to;
        }
        QCOMPARE(data, canonical(tree));

        // Through files, the format taken from the extensions.
        QVERIFY(writeFile(m_dir.filePath(QStringLiteral("step0.vxa")), tree));
        QString previous = QStringLiteral("step0.vxa");
        for (int i = 0; i < formats.size(); ++i) {
            const QString next = QStringLiteral("step%1.%2").arg(i + 1).arg(formats.at(i) == QLatin1String("bytes") ? QStringLiteral("vxb") : formats.at(i));
            const Result step = vxa({QStringLiteral("convert"), previous, next});
            QVERIFY2(step.exitCode == 0, step.err.constData());
            previous = next;
        }
        QCOMPARE(vxa({QStringLiteral("convert"), previous}).out, canonical(tree));
    }

    void setStoresAValueAndKeepsTheFormat_data()
    {
        QTest::addColumn<QString>("value");
        QTest::addColumn<QByteArray>("stored");
        QTest::newRow("typed integer") << QStringLiteral("J:42") << QByteArray("J:42");
        QTest::newRow("typed label list") << QStringLiteral("U:[\"a\",\"b\"]") << QByteArray("U:[\"a\",\"b\"]");
        QTest::newRow("plain text") << QStringLiteral("hello world") << QByteArray("S:hello world");
        QTest::newRow("text that looks like a path") << QStringLiteral("C:\\data") << QByteArray("S:C:\\data");
    }
    void setStoresAValueAndKeepsTheFormat()
    {
        QFETCH(QString, value);
        QFETCH(QByteArray, stored);
        QVERIFY(writeFile(m_dir.filePath(QStringLiteral("tree.vxb")), bytesOf(jsonSafe)));
        const Result set = vxa({QStringLiteral("set"), QStringLiteral("new.setting"), value, QStringLiteral("tree.vxb"), QStringLiteral("tree.vxb")});
        QVERIFY2(set.exitCode == 0, set.err.constData());
        const Result get = vxa(words("get --typed new.setting tree.vxb"));
        QCOMPARE(get.out, stored + '\n');
        // The file is still in byte form and still holds the old settings.
        QCOMPARE(vxa(words("get fw.versions --from bytes tree.vxb")).exitCode, 0);
    }

    void commandRuns_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QByteArray>("input");
        QTest::addColumn<int>("exitCode");
        // On success the standard output; on failure there is none, and this is part of the one
        // line of error.
        QTest::addColumn<QByteArray>("output");
        const QByteArray jsonText = output("convert --from vxa --to json", jsonSafe);
        QTest::newRow("bytes recognised on input") << words("convert") << bytesOf(jsonSafe) << 0 << canonical(jsonSafe);
        QTest::newRow("json recognised on input") << words("convert") << jsonText << 0 << canonical(jsonSafe);
        QTest::newRow("vxa recognised on input") << words("convert") << jsonSafe << 0 << canonical(jsonSafe);
        QTest::newRow("get string") << words("get device.name") << allKinds << 0 << QByteArray("sensor \"left\" = 1\n");
        QTest::newRow("get name in other case") << words("get DEVICE.Serial") << allKinds << 0 << QByteArray("-42\n");
        QTest::newRow("get typed") << words("get --typed device.rate") << allKinds << 0 << QByteArray("F:2.5\n");
        QTest::newRow("get subtree") << words("get device.deep") << allKinds << 0 << QByteArray("er.still=S:x\n");
        QTest::newRow("get missing") << words("get device.nope") << allKinds << 1 << QByteArray();
        QTest::newRow("get bad name") << words("get device.") << allKinds << 2 << QByteArray();
        QTest::newRow("no command") << QStringList() << allKinds << 2 << QByteArray();
        QTest::newRow("unknown command") << words("frobnicate") << allKinds << 2 << QByteArray();
        QTest::newRow("unknown format") << words("convert --to xml") << allKinds << 2 << QByteArray();
        QTest::newRow("unknown output extension") << words("convert - out.txt") << allKinds << 2 << QByteArray();
        QTest::newRow("set without value") << words("set a") << allKinds << 2 << QByteArray();
        QTest::newRow("unreadable typed value") << words("set a I:zz") << allKinds << 2 << QByteArray();
        QTest::newRow("unknown option") << words("print --fast") << allKinds << 2 << QByteArray();
        const QByteArray bytes = bytesOf("a.name=S:hello\nrate=F:2.5\nids=L:[1,2,3]\n");
        QVERIFY(bytes.size() > 40);
        const QStringList fromBytes = words("convert --from bytes"), fromVxa = words("convert --from vxa"), fromJson = words("convert --from json");
        const QByteArray notJson("not JSON text holding one object");
        // Where each reader stops is covered in settingsfilebyteformtest; these rows check
        // the tool's messages and exit code on bad input.
        QTest::newRow("bytes: marker only") << fromBytes << bytes.left(1) << 1 << QByteArray("Not enough data");
        QTest::newRow("bytes: header without records") << fromBytes << bytes.left(5) << 1 << QByteArray("truncated");
        // Where the cut falls depends on the record order, which the byte form leaves open.
        QTest::newRow("bytes: cut inside a value") << fromBytes << bytes.left(bytes.size() - 6) << 1 << QByteArray("truncated");
        QTest::newRow("bytes: trailing bytes") << fromBytes << bytes + "xyz" << 1 << QByteArray("3 bytes left over");
        QTest::newRow("bytes: absurd count") << fromBytes << QByteArray::fromHex("2affffff7f57") << 1 << QByteArray("sensible boundaries");
        QTest::newRow("bytes: label list count far too large")
            << fromBytes << QByteArray("*\x01\x00\x00\x00Wa\x00U\xff\xff\xff\x0f", 13) + QByteArray(4, 'x') << 1 << QByteArray("vxa: ");
        QTest::newRow("bytes: garbage") << fromBytes << QByteArray::fromHex("7f454c4602010100000000000000000003003e00") << 1 << QByteArray("vxa: ");
        QTest::newRow("vxa: plain prose") << fromVxa << QByteArray("hello world\n") << 1 << QByteArray(":1: expected name=T:value");
        QTest::newRow("vxa: unknown kind letter") << fromVxa << QByteArray("a=Z:12\n") << 1 << QByteArray(":1: cannot read the value");
        QTest::newRow("vxa: number with trailing text") << fromVxa << QByteArray("ok=I:1\nn=I:12x\n") << 1 << QByteArray(":2: cannot read the value");
        QTest::newRow("vxa: empty name part") << fromVxa << QByteArray("a..b=I:1\n") << 1 << QByteArray("bad setting name");
        QTest::newRow("vxa: binary data") << fromVxa << bytes << 1 << QByteArray("binary data");
        QTest::newRow("json: cut short") << fromJson << QByteArray("{\"a\": [1, 2") << 1 << notJson;
        QTest::newRow("json: array, not object") << fromJson << QByteArray("[1,2,3]") << 1 << notJson;
        QTest::newRow("json: nested far too deep") << fromJson << QByteArray(5000, '[') << 1 << notJson;
    }
    void commandRuns()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QByteArray, input);
        QFETCH(int, exitCode);
        QFETCH(QByteArray, output);
        const Result result = vxa(arguments, input);
        QCOMPARE(result.exitCode, exitCode);
        QCOMPARE(result.out, exitCode == 0 ? output : QByteArray());
        if (exitCode != 0) {
            QVERIFY2(result.err.startsWith("vxa: ") && result.err.contains(output), result.err.constData());
            QCOMPARE(result.err.count('\n'), 1);
        }
    }
};

QTEST_GUILESS_MAIN(VxaToolTest)
#include "vxatooltest.moc"
