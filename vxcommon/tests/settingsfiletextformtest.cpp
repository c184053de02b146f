// SPDX-License-Identifier: MIT
#include "settingsfile.h"
#include "variantsamples.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

using veltrax::SettingsFile;
using veltrax::Variant;

namespace
{
QString vxa(const SettingsFile& tree, const std::string& filter = std::string(), const std::string& creator = "-")
{
    std::string out = "stale";
    tree.writeVxaString(filter, out, creator);
    return QString::fromStdString(out);
}

QByteArray fileText(const QString& path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

void writeFile(const QString& path, const QByteArray& text)
{
    QFile f(path);
    QVERIFY(f.open(QIODevice::WriteOnly));
    f.write(text);
}

void lineRule(const char* tag, const char* text, const char* expected, const char* filter = "", const char* prefix = "")
{
    QTest::newRow(tag) << QString(text) << QString(filter) << QString(prefix) << QString(expected);
}
} // namespace

class SettingsFileTextFormTest : public QObject
{
    Q_OBJECT
    QTemporaryDir dir; // each test uses its own file names

private Q_SLOTS:
    void headerNamesCreator_data()
    {
        QTest::addColumn<QString>("creator");
        QTest::addColumn<QString>("firstLine");
        QTest::newRow("default creator") << QString() << "; VXA file created by Veltrax (tm)";
        QTest::newRow("named creator") << QString("My Tool 2.0") << "; VXA file created by My Tool 2.0";
    }
    void headerNamesCreator()
    {
        QFETCH(QString, creator);
        const QStringList lines = vxa(SettingsFile(), "", creator.toStdString()).split('\n');
        QCOMPARE(lines.size(), 3); // two lines, each ended by a line feed
        QTEST(lines[0], "firstLine");
        QVERIFY(lines[1].startsWith(QLatin1String("; ")));
        QVERIFY(lines[1].contains(QLatin1String("Veltrax")));
        QCOMPARE(lines[2], QString());
        QCOMPARE(vxa(SettingsFile(), "", "-"), QString());
    }

    void linesSortedSubTreesFirst()
    {
        SettingsFile t;
        t.setSetting("b.z", Variant(1));
        t.setSetting("a", Variant(2));
        t.setSetting("C", Variant(3));
        t.setSetting("B.A", Variant(4));
        t.setSetting("Aa.x", Variant(5));
        t.setSetting("b.q.r", Variant(6));
        // Each kind's own text is covered in varianttest (textFormRoundTrips); these are the
        // line's own rules: a text ending in a line feed gets no second one.
        t.setSetting("v", Variant("two\n"));
        t.setSetting("e", Variant());
        QCOMPARE(vxa(t),
            QStringLiteral("Aa.x=I:5\n"
                           "b.q.r=I:6\n"
                           "b.A=I:4\n"
                           "b.z=I:1\n"
                           "a=I:2\n"
                           "C=I:3\n"
                           "e=\n"
                           "v=S:two\n"));
    }

    void writeFilterAppliesToLabels()
    {
        SettingsFile t;
        t.setSetting("rate", Variant(1));
        t.setSetting("other", Variant(2));
        t.setSetting("sub.RateMax", Variant(3));
        t.setSetting("sub.x", Variant(4));
        QCOMPARE(vxa(t, "ra"), QStringLiteral("sub.RateMax=I:3\nrate=I:1\n"));
    }

    // Arbitrary text is fuzz_vxastring's, replayed over its corpus by fuzzcorpustest.
    void readerLineRules_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("filter");
        QTest::addColumn<QString>("prefix");
        QTest::addColumn<QString>("expected");
        lineRule("comments and empty lines skipped", "; a=I:1\n\n\nb=I:2\n", "b=I:2\n");
        lineRule("line without equals skipped", "junk\nb=I:2", "b=I:2\n");
        lineRule("double equals", "a==S:x\n", "a=S:x\n");
        lineRule("CRLF text", "a=S:x\r\n", "a=S:x\n");
        lineRule("CRLF number", "a=I:7\r\n", "a=I:7\n");
        lineRule("filter on names", "Rate=I:1\nother=I:2\nrate.x=I:3\n", "rate.x=I:3\nRate=I:1\n", "RA");
        lineRule("prefix prepended", "a=I:1\n", "p.q.a=I:1\n", "", "p.q.");
        lineRule("equals in text value", "t=S:a=b\n", "t=S:a=b\n");
        lineRule("empty value", "e=\n", "e=\n");
        lineRule("unknown tag kept", "u=Z:whatever\n", "u=Z:\n");
        lineRule("tag without colon", "b=B\n", "b=B:N\n");
        lineRule("dotted names make subtrees", "a.b.c=B:y\n", "a.b.c=B:Y\n");
        lineRule("last line wins", "a=I:1\nA=I:2\n", "a=I:2\n");
    }
    void readerLineRules()
    {
        QFETCH(QString, text);
        QFETCH(QString, filter);
        QFETCH(QString, prefix);
        SettingsFile t;
        t.readVxaString(text.toStdString(), filter.toStdString(), prefix.toStdString());
        QTEST(vxa(t), "expected");
    }

    void readerMarksModifiedAndMerges()
    {
        SettingsFile t;
        t.setSetting("keep", Variant(1));
        t.setDirty(false);
        t.readVxaString("; nothing\n");
        QVERIFY(t.isModified());
        t.readVxaString("new=I:2\n");
        QCOMPARE(t.size(), size_t(2));
    }

    void everyKindRoundTripsThroughText_data()
    {
        QTest::addColumn<Variant>("value");
        for (const auto& kind : everyKind())
            QTest::newRow(kind.first.constData()) << kind.second;
        QTest::newRow("text with separators") << Variant("some text; with = signs");
        QTest::newRow("labels with blanks and breaks") << Variant(labels({"x y", "line\nbreak", ""}));
        QTest::newRow("binary object with line feed") << Variant(veltrax::BinaryObject("\x00\x01\n", 3));
    }
    void everyKindRoundTripsThroughText()
    {
        QFETCH(Variant, value);
        SettingsFile t;
        t.setSetting("a.deep", value);
        std::string text;
        t.writeVxaString("", text, "");
        SettingsFile back;
        back.readVxaString(text);
        QCOMPARE(back.flattened().size(), size_t(1));
        const Variant v = back.setting("a.deep");
        QCOMPARE(int(v.type()), int(value.type()));
        QVERIFY2(v == value, text.c_str());
    }

    void openReadsAndRemembersFile()
    {
        const QString path = dir.filePath("settings.vxa");
        writeFile(path, "; header\nx.y=I:5\n");
        SettingsFile t;
        t.setSetting("gone", Variant(1));
        // Without an extension the file name gets ".vxa".
        QVERIFY(t.open(dir.filePath("settings").toStdString()));
        QCOMPARE(QString::fromStdString(t.getFilename()), path);
        QCOMPARE(vxa(t), QStringLiteral("x.y=I:5\n"));
        QVERIFY(!t.isModified());
    }

    void openOfMissingFileFails()
    {
        SettingsFile t;
        t.setSetting("kept", Variant(1));
        QVERIFY(!t.open(dir.filePath("missing.vxa").toStdString()));
        QVERIFY(t.hasSetting("kept"));
        QVERIFY(t.getFilename().empty());
        QVERIFY(!t.readVxa(dir.filePath("missing.vxa").toStdString()));
        QVERIFY(!t.writeVxa(dir.filePath("no/such/dir/x.vxa").toStdString()));
        QVERIFY(!t.save()); // no file to save to
    }

    void createSaveAndClose()
    {
        const QString path = dir.filePath("made.vxa");
        SettingsFile t;
        t.setSetting("old", Variant(1));
        QVERIFY(t.create(path.toStdString()));
        QVERIFY(t.empty());
        QVERIFY(fileText(path).startsWith("; VXA file created by"));
        t.setSetting("a.b", Variant("v"));
        QVERIFY(t.isModified());
        QVERIFY(t.save());
        QVERIFY(!t.isModified());
        QVERIFY(fileText(path).endsWith("a.b=S:v\n"));
        t.setSetting("c", Variant(1));
        QVERIFY(t.close()); // no auto-save: nothing written
        QVERIFY(!fileText(path).contains("c=I:1"));
        QVERIFY(t.getFilename().empty());

        SettingsFile u;
        QVERIFY(u.open(path.toStdString()));
        u.setAutoSaveOnExit(true);
        u.setSetting("c", Variant(1));
        QVERIFY(u.close());
        QVERIFY(fileText(path).contains("c=I:1\n"));
    }

    void saveOnExitWritesModifiedTree()
    {
        const QString path = dir.filePath("exit.vxa");
        {
            SettingsFile t;
            QVERIFY(t.create(path.toStdString()));
            t.setAutoSaveOnExit(true);
            t.setSetting("written.on.exit", Variant(true));
        }
        QVERIFY(fileText(path).contains("written.on.exit=B:Y\n"));
        {
            SettingsFile t;
            QVERIFY(t.create(dir.filePath("quiet.vxa").toStdString()));
            t.setSetting("not.written", Variant(true)); // auto-save is off by default
        }
        QVERIFY(!fileText(dir.filePath("quiet.vxa")).contains("not.written"));
    }

    void readVxaAndImportAddSettings()
    {
        const QString path = dir.filePath("in.vxa");
        writeFile(path, "rate=I:1\nname=S:n\n");
        SettingsFile t;
        t.setSetting("kept", Variant(1));
        QVERIFY(t.readVxa(path.toStdString(), "ra", "r."));
        QVERIFY(t.import(path.toStdString(), "i."));
        QVERIFY(t.getFilename().empty()); // reading a file does not bind the tree to it

        const QString out = dir.filePath("out");
        QVERIFY(t.writeVxa(out.toStdString(), "", "-"));
        QCOMPARE(fileText(out + ".vxa"), QByteArray("i.name=S:n\ni.rate=I:1\nr.rate=I:1\nkept=I:1\n"));
    }
};

QTEST_GUILESS_MAIN(SettingsFileTextFormTest)
#include "settingsfiletextformtest.moc"
