// SPDX-License-Identifier: MIT
//
// The update window on the offscreen platform: which releases it lists, in which order,
// which one it preselects, the failure text, and the interval and beta controls.
#include "autoupdate.h"
#include "autoupdatetesthost.h"

#include <QCheckBox>
#include <QDesktopServices>
#include <QHeaderView>
#include <QLabel>
#include <QPushButton>
#include <QScrollBar>
#include <QSignalSpy>
#include <QSpinBox>
#include <QTableWidget>
#include <QtTest>

#include <memory>

Q_DECLARE_METATYPE(VxVersion)

/** Receives the URLs that the window asks the desktop to open. */
class UrlCatcher : public QObject
{
    Q_OBJECT
public:
    QList<QUrl> opened;
public Q_SLOTS:
    void open(const QUrl& url) { opened.append(url); }
};

class AutoUpdateWindowTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        isolateSettings();
        m_host = TestHost();
    }

    void listsReleasesNewestFirstAndSelectsByRule_data()
    {
        QTest::addColumn<VxVersion>("current");
        QTest::addColumn<QStringList>("releases");
        QTest::addColumn<bool>("acceptBeta");
        QTest::addColumn<bool>("allowBeta");
        QTest::addColumn<QStringList>("rows");
        QTest::addColumn<QString>("selected");

        const QStringList mixed {"v1_2_0", "v1_3_0 beta", "v1_2_5"};
        QTest::newRow("stable newer wins over newer beta") << VxVersion(1, 2, 0) << mixed << true << true << QStringList {"1.3.0", "1.2.5", "1.2.0"} << "1.2.5";
        QTest::newRow("beta rows absent when unchecked") << VxVersion(1, 2, 0) << mixed << false << true << QStringList {"1.2.5", "1.2.0"} << "1.2.5";
        QTest::newRow("beta rows absent when host offers none") << VxVersion(1, 2, 0) << mixed << true << false << QStringList {"1.2.5", "1.2.0"} << "1.2.5";
        QTest::newRow("oldest newer beta when only betas are newer")
            << VxVersion(1, 2, 0) << QStringList {"v1_2_0", "v1_3_0 beta", "v1_4_0 beta"} << true << true << QStringList {"1.4.0", "1.3.0", "1.2.0"} << "1.3.0";
        QTest::newRow("running a beta, newest wins") << VxVersion(1, 3, 0) << QStringList {"v1_3_0 beta", "v1_3_5", "v1_4_0 beta"} << true << true
                                                     << QStringList {"1.4.0", "1.3.5", "1.3.0"} << "1.4.0";
        QTest::newRow("numeric order") << VxVersion(1, 0, 0) << QStringList {"v1_9_0", "v1_10_0", "v1_0_0"} << false << true
                                       << QStringList {"1.10.0", "1.9.0", "1.0.0"} << "1.10.0";
        QTest::newRow("nothing newer") << VxVersion(2, 0, 0) << QStringList {"v1_0_0", "v2_0_0"} << false << true << QStringList {"2.0.0", "1.0.0"}
                                       << QString();
    }
    void listsReleasesNewestFirstAndSelectsByRule()
    {
        QFETCH(VxVersion, current);
        QFETCH(QStringList, releases);
        QFETCH(bool, acceptBeta);
        QFETCH(bool, allowBeta);
        QFETCH(QStringList, rows);
        QFETCH(QString, selected);

        m_host.current = current;
        m_host.allowBeta = allowBeta;
        QSettings().setValue(QStringLiteral("UpdateCheck/AcceptBeta"), acceptBeta);
        auto controller = controllerWith(releases);
        AutoUpdateWindow window(&m_host, controller.get());

        QVERIFY(child<QTableWidget>(window, "versionTableWidget")->isVisibleTo(&window));
        QVERIFY(!child<QLabel>(window, "retrievingLabel")->isVisibleTo(&window));
        QCOMPARE(child<QCheckBox>(window, "betaCheckBox")->isVisibleTo(&window), allowBeta);
        QCOMPARE(column(window, 0), rows);
        QCOMPARE(selectedVersion(window), selected);
        QCOMPARE(child<QPushButton>(window, "updatePushButton")->isEnabled(), !selected.isEmpty());
    }
    void betaClickRebuildsTableAndReportsChoice()
    {
        auto controller = controllerWith({"v1_2_0", "v1_3_0 beta", "v1_2_5"});
        AutoUpdateWindow window(&m_host, controller.get());
        QSignalSpy betaSpy(&window, &AutoUpdateWindow::betaChanged);
        QCOMPARE(column(window, 0), (QStringList {"1.2.5", "1.2.0"}));

        child<QCheckBox>(window, "betaCheckBox")->click();
        QCOMPARE(betaSpy.count(), 1);
        QCOMPARE(betaSpy.at(0).at(0).toBool(), true);
        QCOMPARE(column(window, 0), (QStringList {"1.3.0", "1.2.5", "1.2.0"}));
        QCOMPARE(column(window, 1), (QStringList {"Beta", "Stable", "Stable"}));
        // Storing the choice is the host's business.
        QVERIFY(!QSettings().value(QStringLiteral("UpdateCheck/AcceptBeta")).toBool());
    }
    void notesCompareWithRunningVersionAndLicence()
    {
        m_host.current = VxVersion(1, 2, 0, 99); // the build number plays no part
        m_host.licenseLimit = qint64(1650000000) * 1000;
        QList<TestRelease> releases {{QStringLiteral("v1_1_0")}, {QStringLiteral("v1_2_0")}, {QStringLiteral("v1_3_0")}, {QStringLiteral("v1_4_0")}};
        releases[3].dateSeconds = 1700000000; // after the licence's limit
        AutoUpdate controller(&m_host);
        QVERIFY(deliverListReply(&controller, listReply(m_host.product, releases)));

        AutoUpdateWindow window(&m_host, &controller);
        QCOMPARE(column(window, 3),
            (QStringList {"Current license does not allow running this version", "Newer than current", "Current version", "Older than current"}));
        QCOMPARE(column(window, 2).last(), QDateTime::fromSecsSinceEpoch(1600000000).toString(QStringLiteral("d MMM yyyy")));
        QVERIFY(child<QLabel>(window, "newVersionTextLabel")->isVisibleTo(&window));
    }
    void emptyListShowsEmptyTableWithDownloadDisabled()
    {
        auto controller = controllerWith({"v1_3_0"});
        AutoUpdateWindow window(&m_host, controller.get());
        auto* download = child<QPushButton>(window, "updatePushButton");
        QVERIFY(download->isEnabled());
        QVERIFY(!window.windowIcon().availableSizes().isEmpty()); // the icon resource is there
        // Every column, the last one too, is as wide as its contents.
        const QTableWidget* table = child<QTableWidget>(window, "versionTableWidget");
        QStringList headers;
        for (int c = 0; c < table->columnCount(); ++c) {
            headers.append(table->horizontalHeaderItem(c)->text());
            QCOMPARE(table->horizontalHeader()->sectionResizeMode(c), QHeaderView::ResizeToContents);
        }
        QCOMPARE(headers, (QStringList {"Version", "Status", "Date", "Notes", "More information"}));
        QVERIFY(!table->horizontalHeader()->stretchLastSection());

        // A later refresh finds the product without releases.
        QVERIFY(deliverListReply(controller.get(), listReply(m_host.product, {})));
        QCOMPARE(child<QTableWidget>(window, "versionTableWidget")->rowCount(), 0);
        QVERIFY(child<QTableWidget>(window, "versionTableWidget")->isVisibleTo(&window));
        QVERIFY(!download->isEnabled());
    }
    void failureNamesServerAndHidesTable()
    {
        // No versions yet: the window asks the server, which is not there.
        AutoUpdateWindow window(&m_host);
        auto* retrieving = child<QLabel>(window, "retrievingLabel");
        auto* failure = child<QLabel>(window, "failureLabel");
        QVERIFY(retrieving->isVisibleTo(&window));
        QVERIFY(!child<QTableWidget>(window, "versionTableWidget")->isVisibleTo(&window));

        QTRY_VERIFY_WITH_TIMEOUT(failure->isVisibleTo(&window), 10000);
        QCOMPARE(failure->text(), QStringLiteral("Failed to get version information from Veltrax update server at 127.0.0.1:%1").arg(m_host.options.port));
        QVERIFY(!retrieving->isVisibleTo(&window));
        QVERIFY(!child<QTableWidget>(window, "versionTableWidget")->isVisibleTo(&window));
        QVERIFY(!child<QPushButton>(window, "updatePushButton")->isEnabled());
    }
    // Every text is whole at the dialog's size, at the usual and at twice the font size: the
    // rendered window's labels and buttons are as wide as their texts need (wrapping labels
    // as high), and the list needs no horizontal scroll bar.
    void textsAreWholeAtTheDefaultSize_data()
    {
        QTest::addColumn<bool>("failed");
        QTest::addColumn<qreal>("fontScale");
        QTest::addColumn<bool>("longNotes"); // the licence remark on every row
        QTest::newRow("list") << false << 1.0 << false;
        QTest::newRow("list, licence remarks") << false << 1.0 << true;
        QTest::newRow("list, large font") << false << 2.0 << true;
        QTest::newRow("failure") << true << 1.0 << false;
        QTest::newRow("failure, large font") << true << 2.0 << false;
    }
    void textsAreWholeAtTheDefaultSize()
    {
        QFETCH(bool, failed);
        QFETCH(qreal, fontScale);
        QFETCH(bool, longNotes);
        const QFont usual = QApplication::font();
        QFont font = usual;
        font.setPointSizeF(usual.pointSizeF() * fontScale);
        QApplication::setFont(font);
        auto restore = qScopeGuard([&usual] {
            QApplication::setFont(usual);
        });

        if (longNotes)
            m_host.licenseLimit = qint64(1500000000) * 1000;
        QList<TestRelease> list = releases({"v1_1_0", "v2021_10_0"});
        list[1].infoLabel = QStringLiteral("Release notes");
        list[1].infoUrl = QStringLiteral("https://example.invalid/notes");
        AutoUpdate controller(&m_host);
        QVERIFY(deliverListReply(&controller, listReply(m_host.product, list)));
        AutoUpdateWindow window(&m_host, &controller);
        if (failed)
            window.reportUpdateFailure();
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        QCOMPARE(window.size(), QSize(640, 400));
        QCoreApplication::sendPostedEvents(); // pending layout requests
        QVERIFY(!window.grab().isNull());

        QStringList cut;
        for (QWidget* widget : window.findChildren<QWidget*>()) {
            if (!widget->isVisible())
                continue;
            const auto* label = qobject_cast<QLabel*>(widget);
            const bool whole = label && label->wordWrap() ? label->heightForWidth(label->width()) <= label->height()
                : label || qobject_cast<QAbstractButton*>(widget) ? widget->sizeHint().width() <= widget->width()
                                                                  : true;
            if (!whole)
                cut.append(widget->objectName());
        }
        QCOMPARE(cut.join(QLatin1Char(',')), QString());
        // Each column is as wide as its contents (see emptyListShowsEmptyTableWithDownloadDisabled),
        // so only the usual font and notes are sure to fit.
        if (fontScale == 1.0 && !m_host.licenseLimit)
            QVERIFY(!child<QTableWidget>(window, "versionTableWidget")->horizontalScrollBar()->isVisible());
    }
    void intervalControlsFollowHostAndReportChanges_data()
    {
        QTest::addColumn<int>("hostInterval");
        QTest::addColumn<bool>("checked");
        QTest::addColumn<int>("shownDays");

        QTest::newRow("interval 0 means off") << 0 << false << 7;
        QTest::newRow("interval 14") << 14 << true << 14;
    }
    void intervalControlsFollowHostAndReportChanges()
    {
        QFETCH(int, hostInterval);
        QFETCH(bool, checked);
        QFETCH(int, shownDays);

        m_host.interval = hostInterval;
        auto controller = controllerWith({"v1_2_0"});
        AutoUpdateWindow window(&m_host, controller.get());
        QSignalSpy spy(&window, &AutoUpdateWindow::updateIntervalChanged);
        auto* box = child<QCheckBox>(window, "intervalCheckBox");
        auto* spin = child<QSpinBox>(window, "updateIntervalSpinBox");
        QCOMPARE(box->isChecked(), checked);
        QCOMPARE(spin->isEnabled(), checked);
        QCOMPARE(spin->value(), shownDays);

        box->click();
        box->click();
        QCOMPARE(spin->isEnabled(), checked);
        const QList<int> expected = checked ? QList<int> {0, shownDays} : QList<int> {shownDays, 0};
        QCOMPARE((QList<int> {spy.at(0).at(0).toInt(), spy.at(1).at(0).toInt()}), expected);

        spin->setValue(21);
        QCOMPARE(spy.count(), 3);
        QCOMPARE(spy.at(2).at(0).toInt(), checked ? 21 : 0);
    }
    void infoLinkOpensOnlyFromItsOwnCell()
    {
        QList<TestRelease> releases {{QStringLiteral("v1_2_0")}, {QStringLiteral("v1_3_0")}, {QStringLiteral("v1_4_0")}};
        releases[1].infoLabel = QStringLiteral("Release notes");
        releases[1].infoUrl = QStringLiteral("https://example.invalid/notes/1.3");
        releases[2].infoLabel = QStringLiteral("Label without address");
        AutoUpdate controller(&m_host);
        QVERIFY(deliverListReply(&controller, listReply(m_host.product, releases)));
        UrlCatcher catcher;
        QDesktopServices::setUrlHandler(QStringLiteral("https"), &catcher, "open");

        AutoUpdateWindow window(&m_host, &controller);
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        auto* table = child<QTableWidget>(window, "versionTableWidget");
        QCOMPARE(column(window, 4), (QStringList {QString(), "Release notes", QString()}));
        QVERIFY(table->item(1, 4)->font().underline());
        auto click = [table](int row, int column) {
            QTest::mouseClick(table->viewport(), Qt::LeftButton, {}, table->visualRect(table->model()->index(row, column)).center());
        };
        click(1, 3);
        click(0, 4);
        QCOMPARE(catcher.opened.size(), 0);
        click(1, 4);
        // Rebuilding the table leaves exactly one handler per link.
        QVERIFY(deliverListReply(&controller, listReply(m_host.product, releases)));
        click(1, 4);
        QCOMPARE(catcher.opened, (QList<QUrl> {QUrl(releases[1].infoUrl), QUrl(releases[1].infoUrl)}));
        QDesktopServices::unsetUrlHandler(QStringLiteral("https"));
    }
    void downloadButtonDownloadsSelectedRelease()
    {
        QList<TestRelease> releases {{QStringLiteral("v1_2_0")}, {QStringLiteral("v1_3_0")}};
        // Nothing listens there: the download fails at once, and the window lets the controller say so.
        releases[1].url = QStringLiteral("http://127.0.0.1:%1/setup-1.3.0.bin").arg(closedLoopbackPort());
        AutoUpdate controller(&m_host);
        QVERIFY(deliverListReply(&controller, listReply(m_host.product, releases)));
        AutoUpdateWindow window(&m_host, &controller);
        QCOMPARE(selectedVersion(window), QStringLiteral("1.3.0"));

        DialogAnswerer answerer {QString()};
        child<QPushButton>(window, "updatePushButton")->click();
        QTRY_COMPARE_WITH_TIMEOUT(answerer.messages, QStringList {"Failed to download update|Connection refused"}, 10000);
    }

private:
    /** A controller that already holds @p releases ("v1_3_0" or "v1_3_0 beta"). */
    std::unique_ptr<AutoUpdate> controllerWith(const QStringList& releases)
    {
        auto controller = std::make_unique<AutoUpdate>(&m_host);
        deliverListReply(controller.get(), listReply(m_host.product, ::releases(releases)));
        return controller;
    }
    template <typename T> T* child(const AutoUpdateWindow& window, const char* name) { return window.findChild<T*>(QLatin1String(name)); }
    QStringList column(const AutoUpdateWindow& window, int c)
    {
        auto* table = child<QTableWidget>(window, "versionTableWidget");
        QStringList texts;
        for (int r = 0; r < table->rowCount(); ++r)
            texts.append(table->item(r, c) ? table->item(r, c)->text() : QString());
        return texts;
    }
    QString selectedVersion(const AutoUpdateWindow& window)
    {
        auto* table = child<QTableWidget>(window, "versionTableWidget");
        const QList<QTableWidgetItem*> selected = table->selectedItems();
        return selected.isEmpty() ? QString() : table->item(selected.first()->row(), 0)->text();
    }

    TestHost m_host;
};

QTEST_MAIN(AutoUpdateWindowTest)
#include "autoupdatewindowtest.moc"
