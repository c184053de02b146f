// SPDX-License-Identifier: MIT
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
    void initTestCase();
    void clipboardHoldsTheWholeSoftwareInformation();
    void buildInfo_data();
    void buildInfo();
    void trademarkLinesReplaceTheMakerSentenceWithoutRepeats();
    void componentsShareOnePageBesideTheQtRow();
    void unknownTabNameLeavesTheSelection();
    void usageCheckboxSignalsOnlyChanges();
    void checkForUpdatesButtonIsOptIn();
};

void AboutBoxTest::initTestCase()
{
    QCoreApplication::setApplicationName(QStringLiteral("Kinemon Test"));
    QCoreApplication::setApplicationVersion(QStringLiteral("2.4.1"));
    QCoreApplication::setOrganizationName(QStringLiteral("Veltrax Test"));
    QCoreApplication::setOrganizationDomain(QStringLiteral("veltrax.example"));
    // Build dates must come out in US English whatever the user's locale.
    QLocale::setDefault(QLocale(QLocale::German, QLocale::Germany));
}

void AboutBoxTest::clipboardHoldsTheWholeSoftwareInformation()
{
    AboutBox box;
    box.setProductName(QStringLiteral("Motion Studio"));
    box.setApplicationSuffix(QStringLiteral("Pro"));
    box.setBuildInfo(QStringLiteral("812"), QStringLiteral("9f3c2e1"), QStringLiteral("2024-03-05"), QStringLiteral("yyyy-MM-dd"), 0);
    box.addTrademarkLine(QStringLiteral("Kinemon is a trademark of Veltrax Test."));
    box.setEula(QStringLiteral("<p>You may use this <b>software</b>.</p>"));
    box.addComponent(QStringLiteral("Sensor firmware"), QStringLiteral("3.1"));
    box.addCustomPage(new NotesPage);
    box.addComponent(QStringLiteral("Calibration data"), QStringLiteral("2024.1"));
    box.addLicencedComponent(QStringLiteral("<a href=\"https://eigen.example/\">Eigen</a>"),
        QStringLiteral("3.4"),
        QStringLiteral("MPL 2.0"),
        QStringLiteral("https://eigen.example/license"));
    QCOMPARE(box.windowTitle(), QStringLiteral("About Kinemon Test"));
    QCOMPARE(tabTitles(box), QStringLiteral("Notes|Other Components|Licensed Components|License Agreement"));

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
                                            "You may use this software.\n\n");
    QCOMPARE(QGuiApplication::clipboard()->text(QClipboard::Clipboard), expected);
}

void AboutBoxTest::buildInfo_data()
{
    QTest::addColumn<QString>("date");
    QTest::addColumn<QString>("format");
    QTest::addColumn<int>("beta");
    QTest::addColumn<QString>("expected");
    QTest::newRow("release") << "2024-03-05"
                             << "yyyy-MM-dd" << 0 << "Version 2.4.1 build 7, rev r1. 64 bit\nBuild date: Tue Mar 05 2024\n\u00a9 2024 Veltrax Test";
    QTest::newRow("beta") << "05.11.2023 14:02"
                          << "dd.MM.yyyy hh:mm" << 3 << "Version 2.4.1 Beta build 7, rev r1. 64 bit\nBuild date: Sun Nov 05 2023\n\u00a9 2023 Veltrax Test";
    // The copyright "year" of an unparsable date is the one character whose code is this year.
    QTest::newRow("unparsable date")
        << "5th of March"
        << "yyyy-MM-dd" << 0
        << QStringLiteral("Version 2.4.1 build 7, rev r1. 64 bit\nBuild date: \n\u00a9 %1 Veltrax Test").arg(QChar(QDate::currentDate().year()));
}

void AboutBoxTest::buildInfo()
{
    QFETCH(QString, date);
    QFETCH(QString, format);
    QFETCH(int, beta);
    QFETCH(QString, expected);
    AboutBox box;
    box.setBuildInfo(QStringLiteral("7"), QStringLiteral("r1"), date, format, beta);
    QCOMPARE(labelText(box, "buildInfoLabel"), expected);
}

void AboutBoxTest::trademarkLinesReplaceTheMakerSentenceWithoutRepeats()
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

void AboutBoxTest::componentsShareOnePageBesideTheQtRow()
{
    AboutBox box;
    QCOMPARE(tabTitles(box), QStringLiteral("Licensed Components"));
    box.addComponent(QStringLiteral("a"), QStringLiteral("1"));
    box.addComponent(QStringLiteral("b"), QStringLiteral("2"));
    QCOMPARE(tabTitles(box), QStringLiteral("Other Components|Licensed Components"));

    const auto* other = box.findChild<CustomComponentAboutPage*>(QStringLiteral("customComponentAboutPage"));
    const auto* licensed = box.findChild<LicensedComponentAboutPage*>(QStringLiteral("licensedComponentAboutPage"));
    QVERIFY(other && licensed);
    QCOMPARE(const_cast<CustomComponentAboutPage*>(other)->copyToClipboard(), QStringLiteral("a\t1\nb\t2\n"));
    QCOMPARE(const_cast<LicensedComponentAboutPage*>(licensed)->copyToClipboard(), QStringLiteral("Qt\t5.14.0\tQt GNU LGPL version 3\n"));
    const auto* qtLink = licensed->findChild<QLabel*>(QStringLiteral("row0LicensedComponentNameLabel"));
    QVERIFY(qtLink);
    QVERIFY(qtLink->text().contains(QLatin1String("<a href=\"https://")));
}

void AboutBoxTest::unknownTabNameLeavesTheSelection()
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

void AboutBoxTest::usageCheckboxSignalsOnlyChanges()
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
}

void AboutBoxTest::checkForUpdatesButtonIsOptIn()
{
    AboutBox box;
    auto* button = box.findChild<QPushButton*>(QStringLiteral("checkForUpdatesPushButton"));
    QVERIFY(!button->isVisibleTo(&box));
    box.showCheckForUpdatesButton(true);
    QVERIFY(button->isVisibleTo(&box));
    QSignalSpy spy(&box, &AboutBox::checkForUpdates);
    button->click();
    QCOMPARE(spy.count(), 1);
}

QTEST_MAIN(AboutBoxTest)
#include "aboutboxtest.moc"
