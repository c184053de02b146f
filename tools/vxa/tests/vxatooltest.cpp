// SPDX-License-Identifier: MIT
//
// The vxa program as users run it: files and pipes, exit codes, one-line errors.
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
        Result result;
        if (!process.waitForStarted(10000))
            return result;
        process.write(input);
        process.closeWriteChannel();
        if (!process.waitForFinished(20000)) {
            process.kill();
            process.waitForFinished(2000);
            return result;
        }
        // A crash is not an exit code: keep -1 then.
        if (process.exitStatus() == QProcess::NormalExit)
            result.exitCode = process.exitCode();
        result.out = process.readAllStandardOutput();
        result.err = process.readAllStandardError();
        return result;
    }

    QByteArray canonical(const QByteArray& vxaText)
    {
        const Result result = vxa({QStringLiteral("convert"), QStringLiteral("--from"), QStringLiteral("vxa")}, vxaText);
        return result.exitCode == 0 ? result.out : QByteArray("(failed: " + result.err + ")");
    }

    void writeFile(const QString& name, const QByteArray& data)
    {
        QFile file(m_dir.filePath(name));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(data);
    }

    QByteArray bytesOf(const QByteArray& vxaText)
    {
        return vxa({QStringLiteral("convert"), QStringLiteral("--from"), QStringLiteral("vxa"), QStringLiteral("--to"), QStringLiteral("bytes")}, vxaText).out;
    }

    QTemporaryDir m_dir;

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_dir.isValid()); }

    void roundTripKeepsTheTree_data()
    {
        QTest::addColumn<QByteArray>("tree");
        QTest::addColumn<QStringList>("formats");
        QTest::newRow("vxa > bytes > vxa") << allKinds << QStringList {QStringLiteral("bytes")};
        QTest::newRow("vxa > bytes > bytes > vxa") << allKinds << QStringList {QStringLiteral("bytes"), QStringLiteral("bytes")};
        QTest::newRow("vxa > json > vxa") << jsonSafe << QStringList {QStringLiteral("json")};
        QTest::newRow("vxa > json > bytes > vxa") << jsonSafe << QStringList {QStringLiteral("json"), QStringLiteral("bytes")};
        QTest::newRow("vxa > bytes > json > vxa") << jsonSafe << QStringList {QStringLiteral("bytes"), QStringLiteral("json")};
        QTest::newRow("empty tree through json") << QByteArray() << QStringList {QStringLiteral("json"), QStringLiteral("bytes")};
    }
    void roundTripKeepsTheTree()
    {
        QFETCH(QByteArray, tree);
        QFETCH(QStringList, formats);
        // Through pipes, the format named on the command line.
        QByteArray data = tree;
        QString from = QStringLiteral("vxa");
        for (const QString& to : formats) {
            const Result step = vxa({QStringLiteral("convert"), QStringLiteral("--from"), from, QStringLiteral("--to"), to}, data);
            QVERIFY2(step.exitCode == 0, step.err.constData());
            data = step.out;
            from = to;
        }
        const Result back = vxa({QStringLiteral("convert"), QStringLiteral("--from"), from, QStringLiteral("--to"), QStringLiteral("vxa")}, data);
        QVERIFY2(back.exitCode == 0, back.err.constData());
        QCOMPARE(back.out, canonical(tree));

        // Through files, the format taken from the extensions.
        const QHash<QString, QString> extension = {
            {QStringLiteral("bytes"), QStringLiteral("vxb")}, {QStringLiteral("json"), QStringLiteral("json")}, {QStringLiteral("vxa"), QStringLiteral("vxa")}};
        writeFile(QStringLiteral("step0.vxa"), tree);
        QString previous = QStringLiteral("step0.vxa");
        for (int i = 0; i < formats.size(); ++i) {
            const QString next = QStringLiteral("step%1.%2").arg(i + 1).arg(extension.value(formats.at(i)));
            const Result step = vxa({QStringLiteral("convert"), previous, next});
            QVERIFY2(step.exitCode == 0, step.err.constData());
            previous = next;
        }
        QCOMPARE(vxa({QStringLiteral("convert"), previous}).out, canonical(tree));
    }

    void badInputGivesOneLineAndExitCode1_data()
    {
        QTest::addColumn<QString>("from");
        QTest::addColumn<QByteArray>("input");
        QTest::addColumn<QByteArray>("message");

        const QByteArray bytes = bytesOf("a.name=S:hello\nrate=F:2.5\nids=L:[1,2,3]\n");
        QVERIFY(bytes.size() > 40);
        QTest::newRow("bytes: marker only") << "bytes" << bytes.left(1) << QByteArray("Not enough data");
        QTest::newRow("bytes: header cut in the count") << "bytes" << bytes.left(4) << QByteArray("Not enough data");
        QTest::newRow("bytes: header without records") << "bytes" << bytes.left(5) << QByteArray("truncated");
        QTest::newRow("bytes: cut inside the first name") << "bytes" << bytes.left(8) << QByteArray("truncated");
        // Where the cut falls depends on the record order, which the byte form leaves open.
        QTest::newRow("bytes: cut inside a value") << "bytes" << bytes.left(bytes.size() - 6) << QByteArray("truncated");
        QTest::newRow("bytes: last byte missing") << "bytes" << bytes.left(bytes.size() - 1) << QByteArray("truncated");
        QTest::newRow("bytes: trailing bytes") << "bytes" << bytes + "xyz" << QByteArray("3 bytes left over");
        QTest::newRow("bytes: absurd count") << "bytes"
                                             << QByteArray("*\xff\xff\xff\x7f"
                                                           "W",
                                                    6)
                                             << QByteArray("sensible boundaries");
        QTest::newRow("bytes: string without end") << "bytes" << QByteArray("*\x01\x00\x00\x00Wa\x00S", 9) + QByteArray(40, 'x') << QByteArray("truncated");
        QTest::newRow("bytes: label list count far too large")
            << "bytes" << QByteArray("*\x01\x00\x00\x00Wa\x00U\xff\xff\xff\x0f", 13) + QByteArray(4, 'x') << QByteArray("vxa: ");
        QTest::newRow("bytes: garbage") << "bytes"
                                        << QByteArray("\x7f"
                                                      "ELF\x02\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x03\x00>\x00",
                                               20)
                                        << QByteArray("vxa: ");
        QTest::newRow("vxa: plain prose") << "vxa" << QByteArray("hello world\n") << QByteArray(":1: expected name=T:value");
        QTest::newRow("vxa: unknown kind letter") << "vxa" << QByteArray("a=Z:12\n") << QByteArray(":1: cannot read the value");
        QTest::newRow("vxa: number with trailing text") << "vxa" << QByteArray("ok=I:1\nn=I:12x\n") << QByteArray(":2: cannot read the value");
        QTest::newRow("vxa: empty name part") << "vxa" << QByteArray("a..b=I:1\n") << QByteArray("bad setting name");
        QTest::newRow("vxa: binary data") << "vxa" << bytes << QByteArray("binary data");
        QTest::newRow("vxa: value without kind") << "vxa" << QByteArray("a=\n") << QByteArray("cannot read the value");
        QTest::newRow("json: cut short") << "json" << QByteArray("{\"a\": [1, 2") << QByteArray("not JSON text holding one object");
        QTest::newRow("json: array, not object") << "json" << QByteArray("[1,2,3]") << QByteArray("not JSON text holding one object");
        QTest::newRow("json: garbage") << "json" << QByteArray("\x01\x02\x03{", 4) << QByteArray("not JSON text holding one object");
        QTest::newRow("json: nested far too deep") << "json" << QByteArray(5000, '[') << QByteArray("not JSON text holding one object");
    }
    void badInputGivesOneLineAndExitCode1()
    {
        QFETCH(QString, from);
        QFETCH(QByteArray, input);
        QFETCH(QByteArray, message);
        const Result result = vxa({QStringLiteral("convert"), QStringLiteral("--from"), from}, input);
        QCOMPARE(result.exitCode, 1);
        QVERIFY2(result.err.startsWith("vxa: ") && result.err.contains(message), result.err.constData());
        QCOMPARE(result.err.count('\n'), 1);
        QVERIFY(result.out.isEmpty());
    }

    void formatIsRecognisedOnStandardInput_data()
    {
        QTest::addColumn<QByteArray>("input");
        QTest::newRow("bytes") << bytesOf(jsonSafe);
        QTest::newRow("json")
            << vxa({QStringLiteral("convert"), QStringLiteral("--from"), QStringLiteral("vxa"), QStringLiteral("--to"), QStringLiteral("json")}, jsonSafe).out;
        QTest::newRow("vxa") << jsonSafe;
    }
    void formatIsRecognisedOnStandardInput()
    {
        QFETCH(QByteArray, input);
        const Result result = vxa({QStringLiteral("convert")}, input);
        QVERIFY2(result.exitCode == 0, result.err.constData());
        QCOMPARE(result.out, canonical(jsonSafe));
    }

    void getPrintsOneValue_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QByteArray>("output");
        QTest::newRow("string") << QStringList {QStringLiteral("get"), QStringLiteral("device.name")} << 0 << QByteArray("sensor \"left\" = 1\n");
        QTest::newRow("name in other case") << QStringList {QStringLiteral("get"), QStringLiteral("DEVICE.Serial")} << 0 << QByteArray("-42\n");
        QTest::newRow("typed") << QStringList {QStringLiteral("get"), QStringLiteral("--typed"), QStringLiteral("device.rate")} << 0 << QByteArray("F:2.5\n");
        QTest::newRow("subtree") << QStringList {QStringLiteral("get"), QStringLiteral("device.deep")} << 0 << QByteArray("er.still=S:x\n");
        QTest::newRow("missing") << QStringList {QStringLiteral("get"), QStringLiteral("device.nope")} << 1 << QByteArray();
        QTest::newRow("bad name") << QStringList {QStringLiteral("get"), QStringLiteral("device.")} << 2 << QByteArray();
    }
    void getPrintsOneValue()
    {
        QFETCH(QStringList, arguments);
        QFETCH(int, exitCode);
        QFETCH(QByteArray, output);
        const Result result = vxa(arguments, allKinds);
        QCOMPARE(result.exitCode, exitCode);
        QCOMPARE(result.out, output);
        if (exitCode != 0)
            QCOMPARE(result.err.count('\n'), 1);
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
        writeFile(QStringLiteral("tree.vxb"), bytesOf(jsonSafe));
        const Result set = vxa({QStringLiteral("set"), QStringLiteral("new.setting"), value, QStringLiteral("tree.vxb"), QStringLiteral("tree.vxb")});
        QVERIFY2(set.exitCode == 0, set.err.constData());
        const Result get = vxa({QStringLiteral("get"), QStringLiteral("--typed"), QStringLiteral("new.setting"), QStringLiteral("tree.vxb")});
        QCOMPARE(get.out, stored + '\n');
        // The file is still in byte form and still holds the old settings.
        QCOMPARE(
            vxa({QStringLiteral("get"), QStringLiteral("fw.versions"), QStringLiteral("--from"), QStringLiteral("bytes"), QStringLiteral("tree.vxb")}).exitCode,
            0);
    }

    void commandLineErrorsGiveExitCode2_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::newRow("no command") << QStringList();
        QTest::newRow("unknown command") << QStringList {QStringLiteral("frobnicate")};
        QTest::newRow("unknown format") << QStringList {QStringLiteral("convert"), QStringLiteral("--to"), QStringLiteral("xml")};
        QTest::newRow("unknown output extension") << QStringList {QStringLiteral("convert"), QStringLiteral("-"), QStringLiteral("out.txt")};
        QTest::newRow("set without value") << QStringList {QStringLiteral("set"), QStringLiteral("a")};
        QTest::newRow("unreadable typed value") << QStringList {QStringLiteral("set"), QStringLiteral("a"), QStringLiteral("I:zz")};
        QTest::newRow("unknown option") << QStringList {QStringLiteral("print"), QStringLiteral("--fast")};
    }
    void commandLineErrorsGiveExitCode2()
    {
        QFETCH(QStringList, arguments);
        const Result result = vxa(arguments, allKinds);
        QCOMPARE(result.exitCode, 2);
        QVERIFY2(result.err.startsWith("vxa: "), result.err.constData());
        QCOMPARE(result.err.count('\n'), 1);
    }
};

QTEST_GUILESS_MAIN(VxaToolTest)
#include "vxatooltest.moc"
