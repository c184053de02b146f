// SPDX-License-Identifier: MIT
//
// The update controller against the reference update server over TLS on 127.0.0.1: release
// lists and their failures, firmware look-ups, and the rule that decides whether a newer
// release is worth reporting.
#include "autoupdate.h"
#include "autoupdate_p.h"
#include "autoupdatetesthost.h"
#include "serverrequest.h"
#include "updateserverprocess.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

Q_DECLARE_METATYPE(VxVersion)

namespace
{
const char kProduct[] = "VxStudio";
// Legacy: class 0x03, family 0x3, serial 0x0A1B2. Modern: product 0x0012, variant 0x0003.
const VxDeviceId kLegacyDevice(0x0330A1B2u);
const VxDeviceId kModernDevice(0x0012000300000042ull);
const QString kLegacyKey = QStringLiteral("firmwareVersions/03300000");
const QString kModernKey = QStringLiteral("firmwareVersions/M-0012000300000000");

/** The catalogue the server answers from: one subtree per request id, holding its reply. */
veltrax::SettingsFile makeCatalogue()
{
    veltrax::SettingsFile catalogue;
    auto releases = [&catalogue](const std::string& product, const QList<TestRelease>& list) {
        const veltrax::SettingsFile reply = listReply(QString::fromStdString(product), list);
        for (const auto& setting : reply.flattened())
            catalogue.setSetting(product + '.' + setting.first, setting.second);
    };
    releases(kProduct,
        {{QStringLiteral("v2021_0_2"), false, QString(), QStringLiteral("Release notes"), QStringLiteral("https://example.invalid/notes")},
            {QStringLiteral("v2020_5_1"), false, QString(), QStringLiteral("No address")},
            {QStringLiteral("v2021_10_0"), true},
            {QStringLiteral("v2021_2_0"), false, QStringLiteral("Patch")},
            {QStringLiteral("v2021_3_0"), false, QStringLiteral("Hotfix")}});

    // One good release among three malformed ones, and a product with nothing but bad ones.
    releases("Broken", {{QStringLiteral("v1_0_0")}, {QStringLiteral("v1_1_0")}, {QStringLiteral("v1_2_0")}, {QStringLiteral("v1_3_0")}});
    catalogue.erase("Broken.Broken.v1_1_0.date");
    catalogue.setSetting("Broken.Broken.v1_2_0.url", veltrax::Variant(42));
    catalogue.erase("Broken.Broken.v1_3_0.beta");
    catalogue.setSetting("AllBroken.AllBroken.v1_0_0.url", veltrax::Variant("https://example.invalid/c"));

    // For automatic checks (the host runs 1.2.0): a newer stable and beta release, and a
    // product with a release newer still.
    releases("Auto", ::releases({"v1_1_0", "v1_3_0", "v1_4_0 beta"}));
    releases("AutoNewer", ::releases({"v1_3_0", "v1_10_0", "v1_9_0"}));

    // A product without releases: its subtree holds a note and nothing else.
    catalogue.setSetting("NoReleases.NoReleases.note", veltrax::Variant("nothing released yet"));

    // Firmware. The modern device's reply also lists the legacy type. Label order picks the
    // version: v1_0_10 sorts before v1_0_3.
    catalogue.setSetting("0330A1B2.firmware.03300000.versions", veltrax::Variant(VxStringArray {"v1_0_3", "v1_0_10", "v2_0_0"}));
    catalogue.setSetting("0330A1B2.firmware.99999999.versions", veltrax::Variant(VxStringArray {"v9_9_9"}));
    catalogue.setSetting("M-0012000300000000.firmware.M-0012000300000000.versions", veltrax::Variant(VxStringArray {"v5_1_0"}));
    catalogue.setSetting("M-0012000300000000.firmware.03300000.versions", veltrax::Variant(VxStringArray {"v3_0_0"}));
    return catalogue;
}
// What the automatic checks take for the current moment.
QDateTime gNow;
QDateTime testClock()
{
    return gNow;
}
const QDateTime kStart(QDate(2026, 1, 10), QTime(12, 0), Qt::UTC);
const qint64 kDay = 24 * 3600 * 1000LL;
const QString kLastCheck = QStringLiteral("UpdateCheck/LastCheck");
} // namespace

class AutoUpdateTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        m_server.setCatalogue(makeCatalogue());
        QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
    }
    void init()
    {
        isolateSettings();
        m_host = TestHost();
        m_host.product = QString::fromLatin1(kProduct);
        m_host.options = m_server.options();
        m_journal = std::make_unique<Journaller>(m_logDir.filePath(QStringLiteral("journal.log")).toStdString(), true, JLL_TRACE);
        m_host.journal = m_journal.get();
        m_logger = std::make_unique<CapturingLogger>();
    }
    void cleanup()
    {
        m_logger.reset();
        m_journal.reset();
    }

    // Each refresh replaces the versions held before (one old release here), or clears them
    // when it fails. Malformed release records are skipped and logged, to the host's journal too.
    void refreshReplacesTheVersions_data()
    {
        QTest::addColumn<QString>("product");
        QTest::addColumn<bool>("updated");
        QTest::addColumn<QStringList>("versions"); // internal|public|type|info label|info address|date|url|beta
        QTest::addColumn<QStringList>("errors"); // in the parse errors logged, one each

        const QString rest = QStringLiteral("|1600000000000|http://127.0.0.1:1/setup.bin|");
        QTest::newRow("stable, beta and patch releases, sorted") << kProduct << true
                                                                 << QStringList {"v2020_5_1|2020.5.1|Stable|No address|" + rest + "0",
                                                                        "v2021_0_2|2021.0.2|Stable|Release notes|https://example.invalid/notes" + rest + "0",
                                                                        "v2021_10_0|2021.10.0|Beta||" + rest + "1",
                                                                        "v2021_2_0|2021.2.0|Patch||" + rest + "0",
                                                                        "v2021_3_0|2021.3.0|Hotfix||" + rest + "0"}
                                                                 << QStringList();
        QTest::newRow("malformed releases skipped") << "Broken" << true << QStringList {"v1_0_0|1.0.0|Stable||" + rest + "0"}
                                                    << QStringList {
                                                           "Setting v1_1_0.date not found", "does not allow conversion", "Setting v1_3_0.beta not found"};
        QTest::newRow("empty product subtree") << "NoReleases" << true << QStringList() << QStringList();
        QTest::newRow("unknown product (ERROR reply)") << "NoSuchProduct" << false << QStringList() << QStringList();
        QTest::newRow("every release malformed") << "AllBroken" << false << QStringList() << QStringList {"v1_0_0"};
        // An unreachable server: autoupdatewindowtest's failureNamesServerAndHidesTable.
    }
    void refreshReplacesTheVersions()
    {
        QFETCH(QString, product);
        QFETCH(bool, updated);
        QFETCH(QStringList, versions);
        QFETCH(QStringList, errors);

        AutoUpdate autoUpdate(&m_host);
        QCOMPARE(autoUpdate.serverString(), QStringLiteral("127.0.0.1:%1").arg(m_host.options.port));
        QVERIFY(deliverListReply(&autoUpdate, listReply(m_host.product, {{QStringLiteral("v0_9_0")}})));
        m_host.product = product;
        QCOMPARE(refreshSucceeds(autoUpdate), updated);

        QStringList summary;
        for (const AutoUpdate::Version& r : autoUpdate.versions()) {
            summary.append(
                QStringList {r.internalVersion, r.publicVersion, r.releaseType, r.infoLabel, r.infoUrl, QString::number(r.date), r.url, QString::number(r.beta)}
                    .join(QLatin1Char('|')));
        }
        QCOMPARE(summary, versions);

        const QStringList logged = m_logger->lines(JLL_ERROR).filter(QStringLiteral("handleListReply Error while parsing reply: "));
        QCOMPARE(logged.size(), errors.size());
        for (const QString& error : errors)
            QVERIFY2(!logged.filter(error).isEmpty(), qPrintable(error));
        m_journal->flush();
        QCOMPARE(readFile(QString::fromStdString(m_journal->filename())).count("[ERROR] handleListReply Error while parsing reply: "), errors.size());
    }
    void newVersionRule_data()
    {
        QTest::addColumn<VxVersion>("current");
        QTest::addColumn<QStringList>("releases"); // "v1_3_0" or "v1_3_0 beta"
        QTest::addColumn<QVariant>("acceptBeta"); // invalid: key absent
        QTest::addColumn<bool>("expected");

        const QStringList onlyBetaNewer {"v1_2_3", "v1_3_0 beta"};
        QTest::newRow("newer beta, key absent") << VxVersion(1, 2, 3) << onlyBetaNewer << QVariant() << false;
        QTest::newRow("newer beta, betas refused") << VxVersion(1, 2, 3) << onlyBetaNewer << QVariant(false) << false;
        QTest::newRow("newer beta, betas accepted") << VxVersion(1, 2, 3) << onlyBetaNewer << QVariant(true) << true;
        QTest::newRow("newer stable") << VxVersion(1, 2, 3) << QStringList {"v1_2_4"} << QVariant(false) << true;
        QTest::newRow("same triple, other build") << VxVersion(1, 2, 3, 77, 5, "x") << QStringList {"v1_2_3"} << QVariant(true) << false;
        QTest::newRow("minor before revision") << VxVersion(1, 2, 9) << QStringList {"v1_3_0", "v1_1_99"} << QVariant() << true;
        QTest::newRow("numeric, not text") << VxVersion(1, 10, 0) << QStringList {"v1_9_0", "v1_2_0"} << QVariant() << false;
        QTest::newRow("no list yet") << VxVersion(1, 0, 0) << QStringList() << QVariant(true) << false;
    }
    void newVersionRule()
    {
        QFETCH(VxVersion, current);
        QFETCH(QStringList, releases);
        QFETCH(QVariant, acceptBeta);
        QFETCH(bool, expected);

        m_host.current = current;
        if (acceptBeta.isValid())
            QSettings().setValue(QStringLiteral("UpdateCheck/AcceptBeta"), acceptBeta);
        AutoUpdate autoUpdate(&m_host);
        if (!releases.isEmpty())
            QVERIFY(deliverListReply(&autoUpdate, listReply(m_host.product, ::releases(releases))));

        QCOMPARE(autoUpdate.isNewVersionAvailable(), expected);
        // The key exists afterwards, holding what was read.
        QCOMPARE(QSettings().value(QStringLiteral("UpdateCheck/AcceptBeta")), QVariant(acceptBeta.toBool()));
    }
    void firmwareVersionsAreStoredForEveryRequestedKey()
    {
        AutoUpdate autoUpdate(&m_host);
        autoUpdate.requestFirmwareVersion(kLegacyDevice);
        autoUpdate.requestFirmwareVersion(kLegacyDevice);
        QTRY_COMPARE_WITH_TIMEOUT(QSettings().value(kLegacyKey).toString(), QStringLiteral("1.0.10"), 5000);
        QCOMPARE(QSettings().allKeys(), QStringList {kLegacyKey}); // types not asked for are not stored

        // Same type, other serial number: one key. Its reply refreshes every key asked for so far.
        autoUpdate.requestFirmwareVersion(kModernDevice);
        autoUpdate.requestFirmwareVersion(VxDeviceId(0x0012000300000099ull));
        QCOMPARE(autoUpdate.firmwareKeys(), (QStringList {"03300000", "M-0012000300000000"}));
        QTRY_COMPARE_WITH_TIMEOUT(QSettings().value(kModernKey).toString(), QStringLiteral("5.1.0"), 5000);
        QCOMPARE(QSettings().value(kLegacyKey).toString(), QStringLiteral("3.0.0"));
    }
    void destroyingWhileRequestsRunReturns()
    {
        for (int i = 0; i < 5; ++i) {
            auto autoUpdate = std::make_unique<AutoUpdate>(&m_host);
            autoUpdate->refresh();
            autoUpdate->requestFirmwareVersion(kModernDevice);
            QTest::qWait(i * 5);
        }
    }

    // One decision at start: whether it checks, what it reports (newestVersion(): stable
    // unless betas are accepted, in number order) and what it remembers.
    void automaticCheckAtStart_data()
    {
        QTest::addColumn<int>("interval");
        QTest::addColumn<qint64>("lastCheckAge"); // ms before now; -1: never checked
        QTest::addColumn<QString>("skipped");
        QTest::addColumn<QString>("product");
        QTest::addColumn<bool>("acceptBeta");
        QTest::addColumn<bool>("checks");
        QTest::addColumn<QString>("reported"); // empty: no newVersionAvailable

        QTest::newRow("never checked") << 7 << qint64(-1) << QString() << "Auto" << false << true << "v1_3_0";
        QTest::newRow("due") << 7 << 7 * kDay << QString() << "Auto" << false << true << "v1_3_0";
        QTest::newRow("not due") << 7 << 7 * kDay - 1000 << QString() << "Auto" << false << false << QString();
        QTest::newRow("interval 0") << 0 << qint64(-1) << QString() << "Auto" << false << false << QString();
        QTest::newRow("last check in the future") << 7 << -kDay << QString() << "Auto" << false << true << "v1_3_0";
        QTest::newRow("skipped") << 7 << qint64(-1) << "v1_3_0" << "Auto" << false << true << QString();
        QTest::newRow("skipped an older one") << 7 << qint64(-1) << "v1_2_5" << "Auto" << false << true << "v1_3_0";
        QTest::newRow("newer than the skipped") << 7 << qint64(-1) << "v1_3_0" << "AutoNewer" << false << true << "v1_10_0";
        QTest::newRow("betas accepted") << 7 << qint64(-1) << QString() << "Auto" << true << true << "v1_4_0";
        QTest::newRow("nothing newer") << 7 << qint64(-1) << QString() << "Broken" << false << true << QString();
        QTest::newRow("failed check") << 7 << qint64(-1) << QString() << "NoSuchProduct" << false << true << QString();
    }
    void automaticCheckAtStart()
    {
        QFETCH(int, interval);
        QFETCH(qint64, lastCheckAge);
        QFETCH(QString, skipped);
        QFETCH(QString, product);
        QFETCH(bool, acceptBeta);
        QFETCH(bool, checks);
        QFETCH(QString, reported);

        m_host.interval = interval;
        m_host.product = product;
        gNow = kStart;
        const QString before = lastCheckAge == -1 ? QString() : kStart.addMSecs(-lastCheckAge).toString(Qt::ISODate);
        if (!before.isEmpty())
            QSettings().setValue(kLastCheck, before);
        QSettings().setValue(QStringLiteral("UpdateCheck/AcceptBeta"), acceptBeta);
        AutoUpdate autoUpdate(&m_host);
        autoupdate_p::setClock(autoUpdate, testClock);
        if (!skipped.isEmpty())
            autoUpdate.skipVersion(skipped);
        QSignalSpy found(&autoUpdate, &AutoUpdate::newVersionAvailable);
        QSignalSpy outcomes(&autoUpdate, &AutoUpdate::versionsUpdated);
        QSignalSpy failures(&autoUpdate, &AutoUpdate::failedToGetVersions);

        autoUpdate.startAutomaticChecks();
        QCOMPARE(autoUpdate.findChildren<ServerRequest*>().size(), checks ? 1 : 0);
        // The timer never sleeps past an hour, so a changed interval or clock is seen soon.
        QVERIFY(autoupdate_p::msecsToNextDecision(autoUpdate) > 0);
        QVERIFY(autoupdate_p::msecsToNextDecision(autoUpdate) <= 3600 * 1000);
        if (checks)
            QTRY_COMPARE_WITH_TIMEOUT(outcomes.size() + failures.size(), 1, 5000);

        QCOMPARE(found.size(), reported.isEmpty() ? 0 : 1);
        if (!reported.isEmpty())
            QCOMPARE(found.at(0).at(0).value<AutoUpdate::Version>().internalVersion, reported);
        const bool remembered = checks && failures.isEmpty();
        QCOMPARE(QSettings().value(kLastCheck).toString(), remembered ? QStringLiteral("2026-01-10T12:00:00Z") : before);
    }

    // While running: a check becomes due, the interval changes, attempts never come closer
    // than the interval (failed ones included) and never pile up.
    void automaticChecksWhileRunning()
    {
        m_host.product = QStringLiteral("Auto");
        gNow = kStart;
        QSettings().setValue(kLastCheck, kStart.addMSecs(-6 * kDay).toString(Qt::ISODate));
        AutoUpdate autoUpdate(&m_host);
        autoupdate_p::setClock(autoUpdate, testClock);
        QSignalSpy outcomes(&autoUpdate, &AutoUpdate::versionsUpdated);
        QSignalSpy failures(&autoUpdate, &AutoUpdate::failedToGetVersions);
        auto requests = [&autoUpdate] {
            return autoUpdate.findChildren<ServerRequest*>().size();
        };

        autoUpdate.startAutomaticChecks();
        QCOMPARE(requests(), 0);
        gNow = kStart.addMSecs(kDay - 1);
        autoupdate_p::decideAutomaticCheck(autoUpdate);
        QCOMPARE(requests(), 0);
        gNow = kStart.addMSecs(kDay);
        autoupdate_p::decideAutomaticCheck(autoUpdate);
        autoupdate_p::decideAutomaticCheck(autoUpdate); // a burst of timer events: one check
        QCOMPARE(requests(), 1);
        QTRY_COMPARE_WITH_TIMEOUT(outcomes.size(), 1, 5000);
        QTRY_COMPARE_WITH_TIMEOUT(requests(), 0, 5000);

        // A shorter interval counts at the next decision; a failing server is not asked again
        // within it.
        m_host.interval = 1;
        m_host.product = QStringLiteral("NoSuchProduct");
        gNow = gNow.addMSecs(kDay);
        autoupdate_p::decideAutomaticCheck(autoUpdate);
        QTRY_COMPARE_WITH_TIMEOUT(failures.size(), 1, 5000);
        QTRY_COMPARE_WITH_TIMEOUT(requests(), 0, 5000);
        gNow = gNow.addMSecs(kDay - 1);
        autoupdate_p::decideAutomaticCheck(autoUpdate);
        QCOMPARE(requests(), 0);

        autoUpdate.stopAutomaticChecks();
        QCOMPARE(autoupdate_p::msecsToNextDecision(autoUpdate), -1);
        gNow = gNow.addMSecs(30 * kDay);
        autoupdate_p::decideAutomaticCheck(autoUpdate);
        QCOMPARE(requests(), 0);
        QCOMPARE(outcomes.size() + failures.size(), 2);
    }

    // Every failure names its reason.
    void failureReasons_data()
    {
        QTest::addColumn<QString>("product"); // empty: an empty reply tree is delivered
        QTest::addColumn<bool>("reachable");
        QTest::addColumn<QString>("reason");

        QTest::newRow("server refuses the product") << "NoSuchProduct" << true << "NoSuchProduct";
        QTest::newRow("nothing listens") << kProduct << false << "Could not connect to update server";
        QTest::newRow("every release malformed") << "AllBroken" << true << "no readable release";
        QTest::newRow("empty reply") << QString() << true << "empty reply";
    }
    void failureReasons()
    {
        QFETCH(QString, product);
        QFETCH(bool, reachable);
        QFETCH(QString, reason);

        m_host.product = product;
        if (!reachable)
            m_host.options = {QStringLiteral("127.0.0.1"), closedLoopbackPort()};
        AutoUpdate autoUpdate(&m_host);
        QSignalSpy reasons(&autoUpdate, &AutoUpdate::versionCheckFailed);
        if (product.isEmpty())
            QVERIFY(deliverListReply(&autoUpdate, veltrax::SettingsFile()));
        else
            QVERIFY(!refreshSucceeds(autoUpdate));
        QCOMPARE(reasons.size(), 1);
        QVERIFY2(reasons.at(0).at(0).toString().contains(reason), qPrintable(reasons.at(0).at(0).toString()));
    }

private:
    /** refresh() and wait for its outcome: true for versionsUpdated, false for failedToGetVersions. */
    bool refreshSucceeds(AutoUpdate& autoUpdate)
    {
        QSignalSpy updated(&autoUpdate, &AutoUpdate::versionsUpdated);
        QSignalSpy failed(&autoUpdate, &AutoUpdate::failedToGetVersions);
        autoUpdate.refresh();
        for (int i = 0; i < 100 && updated.isEmpty() && failed.isEmpty(); ++i)
            QTest::qWait(50);
        if (updated.count() + failed.count() != 1)
            QTest::qFail("no single outcome of refresh()", __FILE__, __LINE__);
        return updated.count() == 1;
    }

    UpdateServerProcess m_server;
    TestHost m_host;
    QTemporaryDir m_logDir;
    std::unique_ptr<Journaller> m_journal;
    std::unique_ptr<CapturingLogger> m_logger;
};

QTEST_MAIN(AutoUpdateTest)
#include "autoupdatetest.moc"
