// SPDX-License-Identifier: MIT
#include "aboutbox.h"

#include <QLabel>
#include <QtTest>

class AboutPagesTest : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void otherComponentsClipboardText_data();
    void otherComponentsClipboardText();
    void licensedComponentsClipboardText_data();
    void licensedComponentsClipboardText();
    void licensedRowLabelsCarryRowNumbers();
    void licenseAddressIsSubstitutedBeforeLicenseText();
    void eulaIsCopiedAsPlainText();
};

void AboutPagesTest::otherComponentsClipboardText_data()
{
    QTest::addColumn<QStringList>("components"); // name, version, name, version, ...
    QTest::addColumn<QString>("expected");
    QTest::newRow("empty table") << QStringList {} << QStringLiteral("\n");
    QTest::newRow("one row") << QStringList {"a", "1"} << QStringLiteral("a\t1\n");
    QTest::newRow("rows in insertion order") << QStringList {"a", "1", "b", "2"} << QStringLiteral("a\t1\nb\t2\n");
    QTest::newRow("empty version keeps the tab") << QStringList {"a", ""} << QStringLiteral("a\t\n");
    QTest::newRow("markup stays literal") << QStringList {"<b>x</b>", "1"} << QStringLiteral("<b>x</b>\t1\n");
}

void AboutPagesTest::otherComponentsClipboardText()
{
    QFETCH(QStringList, components);
    QFETCH(QString, expected);
    CustomComponentAboutPage page;
    for (int i = 0; i + 1 < components.size(); i += 2)
        page.addComponent(components.at(i), components.at(i + 1));
    QCOMPARE(page.copyToClipboard(), expected);
}

void AboutPagesTest::licensedComponentsClipboardText_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("expected");
    QTest::newRow("plain name") << QStringLiteral("zlib") << QStringLiteral("zlib\t1.3\tzlib License\n");
    QTest::newRow("link name gives its visible text") << QStringLiteral("<a href=\"https://zlib.example/\">zlib</a>")
                                                      << QStringLiteral("zlib\t1.3\tzlib License\n");
    QTest::newRow("link name without visible text") << QStringLiteral("<a href=\"https://zlib.example/\"></a>") << QStringLiteral("\t1.3\tzlib License\n");
    // Only a leading "<a href" makes a label; anything else is shown as typed.
    QTest::newRow("upper-case anchor stays plain") << QStringLiteral("<A HREF=\"x\">zlib</A>") << QStringLiteral("<A HREF=\"x\">zlib</A>\t1.3\tzlib License\n");
}

void AboutPagesTest::licensedComponentsClipboardText()
{
    QFETCH(QString, name);
    QFETCH(QString, expected);
    LicensedComponentAboutPage page;
    page.addComponent(name, QStringLiteral("1.3"), QStringLiteral("zlib License"), QStringLiteral("https://zlib.example/license"));
    QCOMPARE(page.copyToClipboard(), expected);
}

void AboutPagesTest::licensedRowLabelsCarryRowNumbers()
{
    LicensedComponentAboutPage page;
    page.addComponent(
        QStringLiteral("<a href=\"https://a.example/\">A</a>"), QStringLiteral("1"), QStringLiteral("MIT"), QStringLiteral("https://a.example/l"));
    page.addComponent(
        QStringLiteral("<a href=\"https://b.example/\">B</a>"), QStringLiteral("2"), QStringLiteral("BSD"), QStringLiteral("https://b.example/l"));
    page.addComponent(QStringLiteral("C"), QStringLiteral("3"), QStringLiteral("ISC"), QStringLiteral("https://c.example/l"));

    const auto* name0 = page.findChild<QLabel*>(QStringLiteral("row0LicensedComponentNameLabel"));
    const auto* name1 = page.findChild<QLabel*>(QStringLiteral("row1LicensedComponentNameLabel"));
    QVERIFY(name0 && name1);
    QCOMPARE(name0->text(), QStringLiteral("<HTML><BODY><a href=\"https://a.example/\">A</a></BODY></HTML>"));
    QCOMPARE(name1->text(), QStringLiteral("<HTML><BODY><a href=\"https://b.example/\">B</a></BODY></HTML>"));
    QVERIFY(name0->openExternalLinks());
    QVERIFY(!page.findChild<QLabel*>(QStringLiteral("row2LicensedComponentNameLabel")));
    for (int row = 0; row < 3; ++row) {
        const auto* license = page.findChild<QLabel*>(QStringLiteral("row%1LicensedComponentLicenseLabel").arg(row));
        QVERIFY2(license, qPrintable(QStringLiteral("row %1").arg(row)));
        QVERIFY(license->openExternalLinks());
    }
    QCOMPARE(page.copyToClipboard(), QStringLiteral("A\t1\tMIT\nB\t2\tBSD\nC\t3\tISC\n"));
}

void AboutPagesTest::licenseAddressIsSubstitutedBeforeLicenseText()
{
    LicensedComponentAboutPage page;
    page.addComponent(QStringLiteral("x"), QStringLiteral("1"), QStringLiteral("GPL"), QStringLiteral("https://x.example/%2"));
    const auto* license = page.findChild<QLabel*>(QStringLiteral("row0LicensedComponentLicenseLabel"));
    QVERIFY(license);
    QCOMPARE(license->text(), QStringLiteral("<HTML><BODY><a href=https://x.example/GPL>GPL</a></BODY></HTML>"));
}

void AboutPagesTest::eulaIsCopiedAsPlainText()
{
    EulaAboutPage page;
    QCOMPARE(page.windowTitle(), QStringLiteral("License Agreement"));
    page.setEulaText(QStringLiteral("<h2>Terms</h2><p>Use it <b>kindly</b>.</p>"));
    QCOMPARE(page.copyToClipboard(), QStringLiteral("Terms\nUse it kindly."));
}

QTEST_MAIN(AboutPagesTest)
#include "aboutpagestest.moc"
