// SPDX-License-Identifier: MIT
//
// The about box and its pages as real widgets offscreen: the clipboard text, the build
// information, trademark lines, component pages and their labels, tab selection, and the
// optional controls with their signals.
#include "aboutbox.h"

#include <QCheckBox>
#include <QClipboard>
#include <QGuiApplication>
#include <QLabel>
#include <QLocale>
#include <QPushButton>
#include <QTabWidget>
#include <QTextDocument>
#include <QtTest>

namespace
{
// A page of the host's own kind.
class NotesPage : public AboutBoxPage
{
public:
    NotesPage()
        : AboutBoxPage(QStringLiteral("Notes"))
    {
    }
    QString copyToClipboard() override { return QStringLiteral("first note\nsecond note"); }
};

QString labelText(const AboutBox& box, const char* name)
{
    const auto* label = box.findChild<QLabel*>(QLatin1String(name));
    if (!label)
        return QStringLiteral("<no label %1>").arg(QLatin1String(name));
    QTextDocument document;
    document.setHtml(label->text());
    return document.toPlainText();
}

QString tabTitles(const AboutBox& box)
{
    const auto* tabs = box.findChild<QTabWidget*>(QStringLiteral("tabWidget"));
    QStringList titles;
    for (int i = 0; i < tabs->count(); ++i)
        titles << tabs->tabText(i);
    return titles.join(QLatin1Char('|'));
}
} // namespace

class AboutBoxTest : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase()
    {
        QCoreApplication::setApplicationName(QStringLiteral("Kinemon Test"));
        QCoreApplication::setApplicationVersion(QStringLiteral("2.4.1"));
        QCoreApplication::setOrganizationName(QStringLiteral("Veltrax Test"));
        QCoreApplication::setOrganizationDomain(QStringLiteral("veltrax.example"));
        // Build dates must come out in US English whatever the user's locale.
        QLocale::setDefault(QLocale(QLocale::German, QLocale::Germany));
    }
    void clipboardHoldsTheWholeSoftwareInformation()
    {
        AboutBox box;
        QCOMPARE(tabTitles(box), QStringLiteral("Licensed Components")); // the Qt row is always there
        box.setProductName(QStringLiteral("Motion Studio"));
        box.setApplicationSuffix(QStringLiteral("Pro"));
        box.setBuildInfo(QStringLiteral("812"), QStringLiteral("9f3c2e1"), QStringLiteral("2024-03-05"), QStringLiteral("yyyy-MM-dd"), 0);
        box.addTrademarkLine(QStringLiteral("Kinemon is a trademark of Veltrax Test."));
        box.setEula(QStringLiteral("<h2>Terms</h2><p>You may use this <b>software</b>.</p>"));
        box.showUsageDataDetailsLink(true); // not part of the copied text
        box.addComponent(QStringLiteral("Sensor firmware"), QStringLiteral("3.1"));
        box.addCustomPage(new NotesPage);
        box.addComponent(QStringLiteral("Calibration data"), QStringLiteral("2024.1"));
        box.addLicencedComponent(QStringLiteral("<a href=\"https://eigen.example/\">Eigen</a>"),
            QStringLiteral("3.4"),
            QStringLiteral("MPL 2.0"),
            QStringLiteral("https://eigen.example/license"));
        QCOMPARE(box.windowTitle(), QStringLiteral("About Kinemon Test"));
        // Both components share one page.
        QCOMPARE(tabTitles(box), QStringLiteral("Notes|Other Components|Licensed Components|License Agreement"));
        const auto* qtLink = box.findChild<QLabel*>(QStringLiteral("row0LicensedComponentNameLabel"));
        QVERIFY(qtLink && qtLink->text().contains(QLatin1String("<a href=\"https://")));

        QGuiApplication::clipboard()->clear();
        box.findChild<QPushButton*>(QStringLiteral("copyToClipboardPushButton"))->click();

        const QString expected = QStringLiteral("Software Information:\n"
                                                "Kinemon Test Pro\n"
                                                "Version 2.4.1 build 812, rev 9f3c2e1. 64 bit\nBuild date: Tue Mar 05 2024\n\u00a9 2024 Veltrax Test\n"
                                                "Motion Studio developed by Veltrax Test\nVisit our website at\nhttps://www.veltrax.example\n"
                                                "\n\n"
                                                "Licensed Components:\n"
                                                "Qt\t5.14.0\tQt GNU LGPL version 3\nEigen\t3.4\tMPL 2.0\n\n\n"
                                                "Other Components:\n"
                                                "Sensor firmware\t3.1\nCalibration data\t2024.1\n\n\n"
                                                "Notes:\n"
                                                "first note\nsecond note\n\n"
                                                "License Agreement:\n"
                                                "Terms\nYou may use this software.\n\n");
        QCOMPARE(QGuiApplication::clipboard()->text(QClipboard::Clipboard), expected);
    }
    void buildInfo_data()
    {
        QTest::addColumn<QString>("date");
        QTest::addColumn<QString>("format");
        QTest::addColumn<int>("beta");
        QTest::addColumn<QString>("expected");
        // A release build: clipboardHoldsTheWholeSoftwareInformation.
        QTest::newRow("beta") << QStringLiteral("05.11.2023 14:02") << QStringLiteral("dd.MM.yyyy hh:mm") << 3
                              << "Version 2.4.1 Beta build 7, rev r1. 64 bit\nBuild date: Sun Nov 05 2023\n\u00a9 2023 Veltrax Test";
        // The copyright "year" of an unparsable date is the one character whose code is this year.
        QTest::newRow("unparsable date")
            << QStringLiteral("5th of March") << QStringLiteral("yyyy-MM-dd") << 0
            << QStringLiteral("Version 2.4.1 build 7, rev r1. 64 bit\nBuild date: \n\u00a9 %1 Veltrax Test").arg(QChar(QDate::currentDate().year()));
    }
    void buildInfo()
    {
        QFETCH(QString, date);
        QFETCH(QString, format);
        QFETCH(int, beta);
        QFETCH(QString, expected);
        AboutBox box;
        box.setBuildInfo(QStringLiteral("7"), QStringLiteral("r1"), date, format, beta);
        QCOMPARE(labelText(box, "buildInfoLabel"), expected);
    }
    void trademarkLinesReplaceTheMakerSentenceWithoutRepeats()
    {
        AboutBox box;
        QVERIFY(labelText(box, "tradeMarkLabel").contains(QLatin1String("Veltrax")));
        QVERIFY(!labelText(box, "tradeMarkLabel").contains(QLatin1String("All rights reserved.")));

        box.addTrademarkLine(QStringLiteral("A is a mark of B."));
        box.addTrademarkLine(QString());
        box.addTrademarkLine(QStringLiteral("C is a mark of D."));
        box.addTrademarkLine(QStringLiteral("A is a mark of B."));
        QCOMPARE(labelText(box, "tradeMarkLabel"), QStringLiteral("All rights reserved.\nA is a mark of B.\nC is a mark of D.\n"));
    }
    void componentPagesClipboardText_data()
    {
        QTest::addColumn<bool>("licensed"); // licensed rows: names only, each at 1.3 under the zlib License
        QTest::addColumn<QStringList>("components"); // other rows: name, version, name, version, ...
        QTest::addColumn<QString>("expected");
        // Rows in insertion order and a link's visible text: clipboardHoldsTheWholeSoftwareInformation.
        QTest::newRow("empty table") << false << QStringList {} << QStringLiteral("\n");
        QTest::newRow("empty version keeps the tab") << false << QStringList {"a", ""} << QStringLiteral("a\t\n");
        QTest::newRow("markup stays literal") << false << QStringList {"<b>x</b>", "1"} << QStringLiteral("<b>x</b>\t1\n");
        QTest::newRow("link name without visible text")
            << true << QStringList {"<a href=\"https://zlib.example/\"></a>"} << QStringLiteral("\t1.3\tzlib License\n");
        // Only a leading "<a href" makes a label; anything else is shown as typed.
        QTest::newRow("upper-case anchor stays plain")
            << true << QStringList {"<A HREF=\"x\">zlib</A>"} << QStringLiteral("<A HREF=\"x\">zlib</A>\t1.3\tzlib License\n");
    }
    void componentPagesClipboardText()
    {
        QFETCH(bool, licensed);
        QFETCH(QStringList, components);
        QFETCH(QString, expected);
        CustomComponentAboutPage other;
        LicensedComponentAboutPage licensedPage;
        for (int i = 0; i < components.size(); i += licensed ? 1 : 2) {
            if (licensed)
                licensedPage.addComponent(components.at(i), QStringLiteral("1.3"), QStringLiteral("zlib License"), QStringLiteral("https://zlib.example/l"));
            else
                other.addComponent(components.at(i), components.at(i + 1));
        }
        QCOMPARE(licensed ? licensedPage.copyToClipboard() : other.copyToClipboard(), expected);
    }
    void licensedRowLabelsCarryRowNumbers()
    {
        LicensedComponentAboutPage page;
        page.addComponent(
            QStringLiteral("<a href=\"https://a.example/\">A</a>"), QStringLiteral("1"), QStringLiteral("MIT"), QStringLiteral("https://a.example/l"));
        page.addComponent(
            QStringLiteral("<a href=\"https://b.example/\">B</a>"), QStringLiteral("2"), QStringLiteral("BSD"), QStringLiteral("https://b.example/l"));
        // The address is substituted before the licence text, so a "%2" in it becomes the text.
        page.addComponent(QStringLiteral("C"), QStringLiteral("3"), QStringLiteral("ISC"), QStringLiteral("https://c.example/%2"));

        const auto label = [&page](int row, const char* kind) {
            return page.findChild<QLabel*>(QStringLiteral("row%1LicensedComponent%2Label").arg(row).arg(QLatin1String(kind)));
        };
        QVERIFY(label(0, "Name") && label(1, "Name"));
        QCOMPARE(label(0, "Name")->text(), QStringLiteral("<HTML><BODY><a href=\"https://a.example/\">A</a></BODY></HTML>"));
        QCOMPARE(label(1, "Name")->text(), QStringLiteral("<HTML><BODY><a href=\"https://b.example/\">B</a></BODY></HTML>"));
        QVERIFY(label(0, "Name")->openExternalLinks());
        QVERIFY(!label(2, "Name")); // a plain name is no label
        for (int row = 0; row < 3; ++row) {
            QVERIFY2(label(row, "License"), qPrintable(QStringLiteral("row %1").arg(row)));
            QVERIFY(label(row, "License")->openExternalLinks());
        }
        QCOMPARE(label(2, "License")->text(), QStringLiteral("<HTML><BODY><a href=https://c.example/ISC>ISC</a></BODY></HTML>"));
        QCOMPARE(page.copyToClipboard(), QStringLiteral("A\t1\tMIT\nB\t2\tBSD\nC\t3\tISC\n"));
    }
    void unknownTabNameLeavesTheSelection()
    {
        AboutBox box;
        box.addComponent(QStringLiteral("a"), QStringLiteral("1"));
        box.setEula(QStringLiteral("terms"));
        const auto* tabs = box.findChild<QTabWidget*>(QStringLiteral("tabWidget"));
        box.setCurrentSelection(QStringLiteral("License Agreement"));
        QCOMPARE(tabs->currentIndex(), 2);
        box.setCurrentSelection(QStringLiteral("license agreement"));
        QCOMPARE(tabs->currentIndex(), 2);
        box.setCurrentSelection(QStringLiteral("Other Components"));
        QCOMPARE(tabs->currentIndex(), 0);
        QCOMPARE(box.findTabByName(QStringLiteral("Nope")), -1);
    }
    void optionalControlsSignalOnlyChanges()
    {
        AboutBox box;
        auto* checkbox = box.findChild<QCheckBox*>(QStringLiteral("usageDataCheckbox"));
        QVERIFY(!checkbox->isVisibleTo(&box));
        QSignalSpy spy(&box, &AboutBox::allowUsageDataGathering);
        box.showUsageDataCheckbox(true, false);
        QCOMPARE(spy.count(), 0);
        QVERIFY(checkbox->isVisibleTo(&box));
        box.showUsageDataCheckbox(true, true);
        box.showUsageDataCheckbox(true, true);
        QCOMPARE(spy.count(), 1);
        QCOMPARE(spy.at(0).at(0).toBool(), true);
        checkbox->click();
        QCOMPARE(spy.count(), 2);
        QCOMPARE(spy.at(1).at(0).toBool(), false);
        box.showUsageDataCheckbox(false, false);
        QCOMPARE(spy.count(), 2);
        QVERIFY(!checkbox->isVisibleTo(&box));

        auto* button = box.findChild<QPushButton*>(QStringLiteral("checkForUpdatesPushButton"));
        QVERIFY(!button->isVisibleTo(&box));
        box.showCheckForUpdatesButton(true);
        QVERIFY(button->isVisibleTo(&box));
        QSignalSpy checkForUpdates(&box, &AboutBox::checkForUpdates);
        button->click();
        QCOMPARE(checkForUpdates.count(), 1);
    }
};

QTEST_MAIN(AboutBoxTest)
#include "aboutboxtest.moc"
