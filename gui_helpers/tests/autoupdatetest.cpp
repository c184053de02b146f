// SPDX-License-Identifier: MIT
//
// The update controller against the reference update server over TLS on 127.0.0.1: release
// lists and their failures, firmware look-ups, and the rule that decides whether a newer
// release is worth reporting.
#include "autoupdate.h"
#include "autoupdatetesthost.h"
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
