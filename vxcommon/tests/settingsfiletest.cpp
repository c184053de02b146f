// SPDX-License-Identifier: MIT
#include "settingsfile.h"
#include "variantsamples.h"

#include <QTest>

#include <algorithm>

using veltrax::SettingsFile;
using veltrax::Variant;

namespace
{
QStringList sortedLabels(const veltrax::LabelList& list)
{
    QStringList out;
    for (const auto& l : list)
        out << QString::fromStdString(l.toStdString());
    out.sort();
    return out;
}

QStringList names(const SettingsFile& tree)
{
    QStringList out;
    for (const auto& s : tree.flattened())
        out << QString::fromStdString(s.first);
    return out;
}

SettingsFile sample()
{
    SettingsFile t;
    t.setSetting("rate", Variant(1));
    t.setSetting("rateMax", Variant(2));
    t.setSetting("a.b.rate", Variant(3));
    t.setSetting("a.b.count", Variant(4));
    t.setSetting("a.name", Variant("n"));
    t.setSetting("abc.x", Variant(5));
    t.setSetting("z", Variant(6));
    return t;
}
} // namespace

class SettingsFileTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void pathsFollowSplitLabel_data()
    {
        QTest::addColumn<QString>("label");
        QTest::addColumn<QStringList>("split"); // head, tail
        QTest::addColumn<QStringList>("place"); // subtree, setting
        QTest::newRow("dot") << "." << QStringList {"", ""} << QStringList {"", ""};
        QTest::newRow("plain") << "abc" << QStringList {"abc", ""} << QStringList {"", "abc"};
        QTest::newRow("trailing only dot") << "a." << QStringList {"a", "."} << QStringList {"a", ""};
        QTest::newRow("dotted") << "a.b.c" << QStringList {"a", "b.c"} << QStringList {"a.b", "c"};
        QTest::newRow("leading dot") << ".b" << QStringList {"", "b"} << QStringList {"", "b"};
        QTest::newRow("double dot") << "a..b" << QStringList {"a", ".b"} << QStringList {"a", "b"};
        QTest::newRow("two trailing dots") << "a.." << QStringList {"a", "."} << QStringList {"a", ""};
    }
    void pathsFollowSplitLabel()
    {
        QFETCH(QString, label);
        QFETCH(QStringList, place);
        const std::string name = label.toStdString();
        const auto split = SettingsFile::splitLabel(name);
        QTEST((QStringList {QString::fromStdString(split.first), QString::fromStdString(split.second)}), "split");
        QCOMPARE(SettingsFile::splitLabel(""), (std::pair<std::string, std::string>()));

        // Walking the label directly ends where splitting it step by step would.
        SettingsFile t;
        t.setSetting(name, Variant(7));
        const SettingsFile& node = t.subTree(place[0].toStdString());
        QVERIFY(node.isValid());
        QCOMPARE(sortedLabels(node.settingLabels()), QStringList {place[1]});
        QCOMPARE(t.setting(name).toInt32(), 7);
        QCOMPARE(t.size(), size_t(1)); // counted through every subtree
        if (!place[0].isEmpty()) {
            const SettingsFile& top = t.subTree(place[0].section('.', 0, 0).toStdString());
            QCOMPARE(top.parent(), &t);
            QCOMPARE(node.label(), place[0].section('.', -1).toStdString());
        }
    }

    void keysIgnoreCaseAndKeepFirstSpelling()
    {
        SettingsFile t;
        t.setSetting("rate", Variant(1));
        QVERIFY(t.hasSetting("Rate") && t.hasSetting("RATE"));
        t.setSetting("RATE", Variant(2));
        t.setSetting("Sub.X", Variant(1));
        t.setSetting("sub.x", Variant(3));
        QCOMPARE(lines(t), (QStringList {"Sub.X=I:3", "rate=I:2"}));
        QCOMPARE(t.subTree("SUB").setting("X").toInt32(), 3);
    }

    void caseFoldingIsAsciiOnly_data()
    {
        QTest::addColumn<QByteArray>("a");
        QTest::addColumn<QByteArray>("b");
        QTest::addColumn<bool>("same");
        QTest::newRow("short") << QByteArray("Rate") << QByteArray("rATE") << true;
        QTest::newRow("longer than a word") << QByteArray("SettingNumber12345XYZ") << QByteArray("settingnumber12345xyz") << true;
        QTest::newRow("letters at the edges") << QByteArray("AZaz") << QByteArray("azAZ") << true;
        QTest::newRow("neighbours of A and Z") << QByteArray("@[") << QByteArray("`{") << false;
        QTest::newRow("Latin-1 bytes") << QByteArray("\xc1") << QByteArray("\xe1") << false;
        QTest::newRow("UTF-8 letters") << QByteArray("\xc3\x84x") << QByteArray("\xc3\xa4X") << false;
        QTest::newRow("different length") << QByteArray("abc") << QByteArray("abcd") << false;
    }

    void caseFoldingIsAsciiOnly()
    {
        QFETCH(QByteArray, a);
        QFETCH(QByteArray, b);
        QFETCH(bool, same);
        const std::string x = a.toStdString();
        const std::string y = b.toStdString();
        QCOMPARE(veltrax::CaseInsensitiveEqual()(x, y), same);
        if (same)
            QCOMPARE(veltrax::CaseInsensitiveHash()(x), veltrax::CaseInsensitiveHash()(y));
        SettingsFile t;
        t.setSetting(x, Variant(1));
        QCOMPARE(t.hasSetting(y), same);
    }

    void readsOfMissingThingsGiveDefaults()
    {
        const SettingsFile t = sample();
        QVERIFY(t.setting("nope").empty());
        QVERIFY(t.setting("nope.deeper").empty());
        QCOMPARE(t.defaultSetting("nope", Variant(9)).toInt32(), 9);
        QCOMPARE(t.defaultSetting("rate", Variant(9)).toInt32(), 1);
        Variant v(42);
        QVERIFY(!t.getSetting("nope", v));
        QCOMPARE(v.toInt32(), 42);
        QVERIFY(t.getSetting("a.", "name", v));
        QCOMPARE(v.toStdString(), std::string("n"));
        QVERIFY(!t.hasSubTree("a.b.rate"));
        try {
            t.settingThrow("x.y");
            QFAIL("no exception");
        } catch (const VxException& e) {
            QCOMPARE(e.resultValue(), VXRV_NOTFOUND);
            QCOMPARE(e.text().toStdString(), std::string("Setting x.y not found"));
        }
        // A const look-up of a missing subtree gives one shared empty tree.
        const SettingsFile& missing = t.subTree("no.such");
        QVERIFY(!missing.isValid());
        QVERIFY(missing.empty());
        const SettingsFile other;
        QCOMPARE(&missing, &other.subTree("other"));
        QCOMPARE(&t.subTree(""), &t);
        QVERIFY(t.isValid());
        QVERIFY(!t.hasSubTree("no")); // the const look-up created nothing
    }

    void hasSubTreeDistinguishesExistingAndNonEmpty()
    {
        SettingsFile t;
        t.findSubTreeRef("empty.deeper");
        t.setSetting("full.deeper.x", Variant(1));
        // "" is the node itself, which holds a setting below it.
        const QList<bool> found {t.hasSubTree("empty", true),
            t.hasSubTree("empty", false),
            t.hasSubTree("full", false),
            t.hasSubTree("none", true),
            t.hasSubTree("", false),
            SettingsFile().hasSubTree("", false)};
        QCOMPARE(found, (QList<bool> {true, false, true, false, true, false}));
        QCOMPARE(sortedLabels(t.subTrees(false)), (QStringList {"empty", "full"}));
        QCOMPARE(sortedLabels(t.subTrees(true)), QStringList {"full"});
    }

    void clearAllKeepsEmptySubTrees()
    {
        SettingsFile t = sample();
        QCOMPARE(t.clear(), size_t(7));
        QVERIFY(t.empty());
        QCOMPARE(sortedLabels(t.subTrees(false)), (QStringList {"a", "abc"}));
        QVERIFY(t.subTrees(true).empty());
    }

    void removeEmptySubTreesKeepsFilledOnes()
    {
        SettingsFile t;
        t.findSubTreeRef("e1.e2");
        t.findSubTreeRef("f.e3");
        t.setSetting("f.x", Variant(1));
        QCOMPARE(t.removeEmptySubTrees(), size_t(3));
        QCOMPARE(sortedLabels(t.subTrees()), QStringList {"f"});
        QVERIFY(t.subTree("f").subTrees().empty());
    }

    void modifiedFlagPropagatesUpAndClearsDown()
    {
        SettingsFile t;
        t.setSetting("a.b.c", Variant(1));
        t.setSetting("x.y", Variant(1));
        QVERIFY(t.isModified());
        t.setDirty(false);
        QVERIFY(!t.isModified());
        QVERIFY(!t.subTree("a.b").isModified());
        t.setSetting("a.b.c", Variant(2));
        QCOMPARE((QList<bool> {t.subTree("a.b").isModified(), t.subTree("a").isModified(), t.isModified(), t.subTree("x").isModified()}),
            (QList<bool> {true, true, true, false}));
        // Propagation stops at the first node already marked.
        t.setDirty(false);
        t.subTree("a").setDirty(true);
        const_cast<SettingsFile&>(t.subTree("a")).setDirty(true);
        t.subTree("a.b").setDirty(true);
        QVERIFY(t.isModified());
    }

    void copyIsDeepAndIndependent()
    {
        SettingsFile t = sample();
        SettingsFile copy(t);
        copy.setSetting("a.b.rate", Variant(99));
        QCOMPARE(t.setting("a.b.rate").toInt32(), 3);
        QCOMPARE(names(copy), names(t));
        QCOMPARE(&copy.subTree("a.b").root(), &copy);
        SettingsFile assigned;
        assigned.setSetting("gone", Variant(1));
        assigned = t;
        QCOMPARE(names(assigned), names(t));
        SettingsFile moved(std::move(assigned));
        QCOMPARE(names(moved), names(t));
        QCOMPARE(&moved.subTree("a.b").root(), &moved);
    }

    void assignmentFromOwnSubTree()
    {
        SettingsFile t = sample();
        t = t.subTree("a");
        QCOMPARE(names(t), (QStringList {"b.count", "b.rate", "name"}));
        SettingsFile u = sample();
        u.subTree("abc") = u; // a copy of the whole tree below itself
        QCOMPARE(u.setting("abc.a.b.rate").toInt32(), 3);
        QCOMPARE(u.setting("abc.abc.x").toInt32(), 5);
    }

    void bulkOperations_data()
    {
        QTest::addColumn<QString>("operation");
        QTest::addColumn<int>("affected");
        QTest::addColumn<QString>("argument");
        QTest::addColumn<QStringList>("result");
        QTest::newRow("clear prefix removes settings and subtree contents")
            << "clear" << 2 << "rate" << QStringList {"a.b.count", "a.b.rate", "a.name", "abc.x", "z"};
        QTest::newRow("clear prefix matches subtree labels") << "clear" << 4 << "a" << QStringList {"rate", "rateMax", "z"};
        QTest::newRow("clear dotted only inside the named subtree") << "clear" << 2 << "a.b" << QStringList {"a.name", "abc.x", "rate", "rateMax", "z"};
        QTest::newRow("clear dotted prefix inside") << "clear" << 1 << "A.B.R" << QStringList {"a.b.count", "a.name", "abc.x", "rate", "rateMax", "z"};
        QTest::newRow("clear nothing matches") << "clear" << 0 << "q" << names(sample());
        QTest::newRow("erase one setting") << "erase" << 1 << "rate" << QStringList {"a.b.count", "a.b.rate", "a.name", "abc.x", "rateMax", "z"};
        QTest::newRow("erase a subtree") << "erase" << 2 << "a.b" << QStringList {"a.name", "abc.x", "rate", "rateMax", "z"};
        QTest::newRow("erase nothing") << "erase" << 0 << "no.such" << names(sample());
        QTest::newRow("copyTo") << "copyTo" << 3 << "A." << QStringList {"a.b.count", "a.b.rate", "a.name"};
        QTest::newRow("copyTo all") << "copyTo" << 7 << "" << names(sample());
        QTest::newRow("copyToExcept") << "copyToExcept" << 3 << "a" << QStringList {"rate", "rateMax", "z"};
        QTest::newRow("copyToPostfix") << "copyToPostfix" << 2 << "RATE" << QStringList {"a.b.rate", "rate"};
        QTest::newRow("clearPostfix") << "clearPostfix" << 2 << "rate" << QStringList {"a.b.count", "a.name", "abc.x", "rateMax", "z"};
        QTest::newRow("clearExcept") << "clearExcept" << 4 << "a." << QStringList {"a.b.count", "a.b.rate", "a.name"};
        QTest::newRow("clearExceptPostfix") << "clearExceptPostfix" << 5 << "x" << QStringList {"abc.x", "rateMax"};
    }
    void bulkOperations()
    {
        QFETCH(QString, operation);
        QFETCH(QString, argument);
        SettingsFile t = sample();
        t.setDirty(false);
        SettingsFile target;
        const std::string a = argument.toStdString();
        const size_t n = operation == "clear" ? t.clear(a)
            : operation == "erase"            ? t.erase(a)
            : operation == "copyTo"           ? t.copyTo(target, a)
            : operation == "copyToExcept"     ? t.copyToExcept(target, a)
            : operation == "copyToPostfix"    ? t.copyToPostfix(target, a)
            : operation == "clearPostfix"     ? t.clearPostfix(a)
            : operation == "clearExcept"      ? t.clearExcept(a)
                                              : t.clearExceptPostfix(a);
        QTEST(int(n), "affected");
        const bool copies = operation.startsWith("copy");
        QTEST(names(copies ? target : t), "result");
        QCOMPARE(t.isModified(), !copies && n > 0);
        QVERIFY(operation != "erase" || !t.hasSubTree(a)); // an erased subtree goes, not just its content
    }

    void replacePrefixRenames()
    {
        SettingsFile t = sample();
        QCOMPARE(t.replacePrefix("a.b.", "moved."), size_t(2));
        QCOMPARE(names(t), (QStringList {"a.name", "abc.x", "moved.count", "moved.rate", "rate", "rateMax", "z"}));
        QCOMPARE((QList<int> {t.setting("moved.rate").toInt32(), t.setting("moved.count").toInt32()}), (QList<int> {3, 4}));
    }

    void updateValuesTakesOnlyExisting()
    {
        SettingsFile t = sample();
        SettingsFile source;
        source.setSetting("a.b.rate", Variant(30));
        source.setSetting("a.new", Variant(1));
        source.setSetting("rate", Variant(10));
        QCOMPARE(t.updateValues(source, "a."), size_t(1));
        QCOMPARE((QList<int> {t.setting("a.b.rate").toInt32(), t.setting("rate").toInt32()}), (QList<int> {30, 1}));
        QVERIFY(!t.hasSetting("a.new"));
        QCOMPARE(t.updateValuesPostfix(source, "rate"), size_t(2));
        QCOMPARE(t.setting("rate").toInt32(), 10);
    }

    void importPutsUnderPrefix()
    {
        SettingsFile t;
        t.setSetting("keep", Variant(1));
        QCOMPARE(t.import(sample(), "in."), size_t(7));
        QCOMPARE(t.size(), size_t(8));
        QCOMPARE(t.setting("in.a.b.rate").toInt32(), 3);
        SettingsFile::SortedSettings sorted;
        t.getAll(sorted, "P.");
        QCOMPARE(sorted.begin()->first, std::string("P.in.a.b.count"));
        QCOMPARE(sorted.rbegin()->first, std::string("P.keep"));
        QCOMPARE(t.import(t, "self."), size_t(8)); // importing from itself sees the content before the import
        QCOMPARE(t.size(), size_t(16));
    }

    void deepPathsAreBounded()
    {
        SettingsFile t;
        std::string deep;
        for (int i = 0; i < SettingsFile::MaxDepth; ++i)
            deep += "d.";
        t.setSetting(deep + "ok", Variant(1));
        QCOMPARE(t.size(), size_t(1));
        try {
            t.setSetting(deep + "d.tooDeep", Variant(1));
            QFAIL("no exception");
        } catch (const VxException& e) {
            QCOMPARE(e.resultValue(), VXRV_DATAOVERFLOW);
        }
        // A copy of the deepest tree allowed works and goes away cleanly.
        const SettingsFile copy(t);
        QCOMPARE(copy.size(), size_t(1));
    }
};

QTEST_GUILESS_MAIN(SettingsFileTest)
#include "settingsfiletest.moc"
