// SPDX-License-Identifier: MIT
//
// The client against the reference update server as a separate process: catalogue
// answers, usage logs into the inbox, the fault switches, and the program's own checks of
// its command line.
#include "serverrequests.h"
#include "settingsfile.h"
#include "updateservercomm.h"
#include "updateserverprocess.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

namespace
{

constexpr int kWait = 15000;

std::string errorText(const veltrax::SettingsFile& tree, const char* key)
{
    return tree.setting(std::string("error.") + key).toStdString();
}

veltrax::SettingsFile catalogue()
{
    veltrax::SettingsFile tree;
    tree.setSetting("ProductA.ProductA.v2021_0_2.date", veltrax::Variant(static_cast<long>(1609459200)));
    tree.setSetting("ProductA.ProductA.v2021_0_2.url", veltrax::Variant("https://downloads.example.invalid/a-2021.0.2.exe"));
    tree.setSetting("ProductA.ProductA.v2021_0_2.beta", veltrax::Variant(false));
    tree.setSetting("ProductA.ProductA.v2022_1_0.date", veltrax::Variant(static_cast<long>(1650000000)));
    tree.setSetting("ProductA.ProductA.v2022_1_0.url", veltrax::Variant("https://downloads.example.invalid/a-2022.1.0.exe"));
    tree.setSetting("ProductA.ProductA.v2022_1_0.beta", veltrax::Variant(true));
    tree.setSetting("0330A1B2.firmware.03300000.versions", veltrax::Variant("v4_1_0"));
    return tree;
}

} // namespace

class ReferenceUpdateServerTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void listAnswersFromTheCatalogue();
    void get2AnswersFromTheCatalogue();
    void unknownIdGivesAnErrorTree();
    void plainGetIsRefused();
    void usageLogsLandInTheInbox();
    void usageWithoutInboxIsRefused();
    void faultSwitches_data();
    void faultSwitches();
    void neverAnsweringServerIsEndedByTerminate();
    void jsonCatalogueIsRead();
    void programRefusesABadSetup_data();
    void programRefusesABadSetup();
    void programRefusesABusyPort();
    void stopsCleanlyOnSigterm();

private:
    QTemporaryDir m_dir;
    UpdateServerProcess m_server;
};

void ReferenceUpdateServerTest::initTestCase()
{
    if (UpdateServerProcess::program().isEmpty())
        QSKIP("the reference update server is not built");
    QVERIFY(m_dir.isValid());
    m_server.setCatalogue(catalogue());
    QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
}

void ReferenceUpdateServerTest::listAnswersFromTheCatalogue()
{
    UpdateServerComm comm(nullptr, m_server.options());
    const veltrax::SettingsFile tree = runRequest<ServerListRequest>(comm, QStringLiteral("ProductA"), QString());
    QVERIFY(!tree.hasSubTree("error"));
    QCOMPARE(tree.subTree("ProductA").subTrees(true).size(), size_t(2));
    QCOMPARE(tree.setting("ProductA.v2021_0_2.url").toStdString(), std::string("https://downloads.example.invalid/a-2021.0.2.exe"));
    QCOMPARE(tree.setting("ProductA.v2022_1_0.date").toInt64(), int64_t(1650000000));
    QCOMPARE(tree.setting("ProductA.v2022_1_0.beta").toBool(), true);
    QVERIFY(m_server.process().waitForOutputLine(QStringLiteral("LIST ProductA  -> LIST ")));
}

void ReferenceUpdateServerTest::get2AnswersFromTheCatalogue()
{
    UpdateServerComm comm(nullptr, m_server.options());
    const veltrax::SettingsFile tree = runRequest<ServerGet2Request>(comm, QStringLiteral("0330A1B2"), QStringLiteral("FFF00000"), QStringLiteral("v1"));
    QCOMPARE(tree.setting("firmware.03300000.versions").toStdString(), std::string("v4_1_0"));
}

void ReferenceUpdateServerTest::unknownIdGivesAnErrorTree()
{
    UpdateServerComm comm(nullptr, m_server.options());
    const veltrax::SettingsFile tree = runRequest<ServerList2Request>(comm, QStringLiteral("NoSuchProduct"), QStringLiteral("m"));
    QCOMPARE(errorText(tree, "message"), std::string("Unknown id NoSuchProduct"));
    QCOMPARE(errorText(tree, "command"), std::string("LIS2T"));
    QCOMPARE(errorText(tree, "id"), std::string("NoSuchProduct"));
    QCOMPARE(errorText(tree, "mask"), std::string("m"));
}

void ReferenceUpdateServerTest::plainGetIsRefused()
{
    UpdateServerComm comm(nullptr, m_server.options());
    const veltrax::SettingsFile tree = runRequest<ServerGetRequest>(comm, QStringLiteral("ProductA"), QString(), QStringLiteral("v1"));
    QCOMPARE(errorText(tree, "command"), std::string("GET"));
    QCOMPARE(errorText(tree, "version"), std::string("v1"));
    QVERIFY(!errorText(tree, "message").empty());
}

void ReferenceUpdateServerTest::usageLogsLandInTheInbox()
{
    QTemporaryDir logs;
    QVERIFY(logs.isValid());
    const QByteArray first("2024-05-01 12:00:00 started\n2024-05-01 12:05:00 stopped\n");
    const QByteArray second("2024-05-02 08:00:00 started\n");
    for (const auto& [name, content] :
        {std::make_pair(QStringLiteral("Demo_usage_a.log"), first), std::make_pair(QStringLiteral("Demo_usage_b.log"), second)}) {
        QFile f(logs.filePath(name));
        QVERIFY(f.open(QIODevice::WriteOnly));
        f.write(content);
    }
    UpdateServerComm comm(nullptr, m_server.options());
    const veltrax::SettingsFile tree
        = runRequest<SendUsageDataToServer>(comm, logs.filePath(QStringLiteral("Demo_usage_current.log")), QStringLiteral("Demo_usage"));
    QVERIFY(!tree.hasSubTree("error", false));

    const auto stored = [&](const QString& name) {
        QFile f(QDir(m_server.inboxPath()).filePath(name));
        return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray("(missing)");
    };
    QCOMPARE(stored(QStringLiteral("Demo_usage_a.log")), first);
    QCOMPARE(stored(QStringLiteral("Demo_usage_b.log")), second);
    QVERIFY(m_server.process().waitForOutputLine(QStringLiteral("-> ACK, 2 logs stored")));
}

void ReferenceUpdateServerTest::usageWithoutInboxIsRefused()
{
    UpdateServerProcess noInbox(&m_server.certificates());
    noInbox.setUseInbox(false);
    QVERIFY2(noInbox.start(), qPrintable(noInbox.errorString()));
    QTemporaryDir logs;
    QVERIFY(logs.isValid());
    UpdateServerComm comm(nullptr, noInbox.options());
    const veltrax::SettingsFile tree = runRequest<SendUsageDataToServer>(comm, logs.filePath(QStringLiteral("A_1.log")), QStringLiteral("A_"));
    QCOMPARE(errorText(tree, "message"), std::string("Usage data are not accepted here"));
    QCOMPARE(errorText(tree, "command"), std::string("USAGE"));
}

void ReferenceUpdateServerTest::faultSwitches_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<bool>("treeExpected");
    QTest::addColumn<QString>("errorMessage");

    QTest::newRow("reply split into single bytes") << QStringList {"--chunk-size", "1", "--chunk-interval", "0"} << true << QString();
    QTest::newRow("reply split and paced") << QStringList {"--chunk-size", "7", "--chunk-interval", "3"} << true << QString();
    QTest::newRow("reply delayed") << QStringList {"--delay", "150"} << true << QString();
    QTest::newRow("connection closed mid-reply") << QStringList {"--close-after", "12"} << false << QString();
    QTest::newRow("closed before the body") << QStringList {"--close-after", "3"} << false << QString();
    QTest::newRow("every request refused") << QStringList {"--answer-error", "down for maintenance"} << false << "down for maintenance";
}

void ReferenceUpdateServerTest::faultSwitches()
{
    QFETCH(QStringList, arguments);
    QFETCH(bool, treeExpected);
    QFETCH(QString, errorMessage);

    UpdateServerProcess faulty(&m_server.certificates());
    faulty.setCatalogue(catalogue());
    faulty.setExtraArguments(arguments);
    QVERIFY2(faulty.start(), qPrintable(faulty.errorString()));
    UpdateServerComm comm(nullptr, faulty.options());
    const veltrax::SettingsFile tree = runRequest<ServerListRequest>(comm, QStringLiteral("ProductA"), QString());
    if (treeExpected) {
        QCOMPARE(tree.setting("ProductA.v2021_0_2.url").toStdString(), std::string("https://downloads.example.invalid/a-2021.0.2.exe"));
    } else if (!errorMessage.isEmpty()) {
        QCOMPARE(QString::fromStdString(errorText(tree, "message")), errorMessage);
    } else {
        QCOMPARE(tree.size(), size_t(0)); // the dropped connection leaves an empty tree
    }
    QVERIFY(faulty.stop());
}

void ReferenceUpdateServerTest::neverAnsweringServerIsEndedByTerminate()
{
    UpdateServerProcess silent(&m_server.certificates());
    silent.setExtraArguments({QStringLiteral("--never-answer")});
    QVERIFY2(silent.start(), qPrintable(silent.errorString()));
    UpdateServerComm comm(nullptr, silent.options());
    PendingReply pending(new ServerListRequest(comm, QStringLiteral("ProductA"), QString()));
    QVERIFY(silent.process().waitForOutputLine(QStringLiteral("(no answer)")));
    QVERIFY(!pending.received());
    comm.terminate();
    QVERIFY(pending.wait(kWait));
    QCOMPARE(errorText(pending.tree(), "message"), std::string("Terminated"));
}

void ReferenceUpdateServerTest::jsonCatalogueIsRead()
{
    const QString path = m_dir.filePath(QStringLiteral("catalogue.json"));
    QFile f(path);
    QVERIFY(f.open(QIODevice::WriteOnly));
    f.write(R"({"Tool":{"Tool":{"v1_0_0":{"url":"https://example.invalid/t.exe","date":1600000000,"beta":false}}}})");
    f.close();
    UpdateServerProcess jsonServer(&m_server.certificates());
    jsonServer.setCatalogueFile(path);
    QVERIFY2(jsonServer.start(), qPrintable(jsonServer.errorString()));
    UpdateServerComm comm(nullptr, jsonServer.options());
    const veltrax::SettingsFile tree = runRequest<ServerListRequest>(comm, QStringLiteral("Tool"), QString());
    QCOMPARE(tree.setting("Tool.v1_0_0.url").toStdString(), std::string("https://example.invalid/t.exe"));
    QCOMPARE(tree.setting("Tool.v1_0_0.date").toInt64(), int64_t(1600000000));
}

void ReferenceUpdateServerTest::programRefusesABadSetup_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("message");

    const QString cert = m_server.certificates().serverCertificatePath();
    const QString key = m_server.certificates().serverKeyPath();
    const QString missing = m_dir.filePath(QStringLiteral("missing.pem"));
    const QString garbage = m_dir.filePath(QStringLiteral("garbage.txt"));
    QFile g(garbage);
    if (g.open(QIODevice::WriteOnly))
        g.write("this is not PEM and not a catalogue {\n");
    g.close();
    const QString badJson = m_dir.filePath(QStringLiteral("bad.json"));
    QFile::copy(garbage, badJson);

    QTest::newRow("no certificate") << QStringList {"--key", key} << "--cert and --key are required";
    QTest::newRow("certificate file missing") << QStringList {"--cert", missing, "--key", key} << "cannot read the certificate file";
    QTest::newRow("certificate not PEM") << QStringList {"--cert", garbage, "--key", key} << "no PEM certificate in";
    QTest::newRow("key not PEM") << QStringList {"--cert", cert, "--key", garbage} << "no unencrypted PEM private key";
    QTest::newRow("port out of range") << QStringList {"--cert", cert, "--key", key, "--port", "70000"} << "--port must be a whole number from 0 to 65535";
    QTest::newRow("port not a number") << QStringList {"--cert", cert, "--key", key, "--port", "http"} << "--port must be a whole number";
    QTest::newRow("address not an address") << QStringList {"--cert", cert, "--key", key, "--address", "no.such.host"} << "--address must be an IP address";
    QTest::newRow("catalogue missing") << QStringList {"--cert", cert, "--key", key, "--catalogue", missing} << "cannot read the catalogue file";
    QTest::newRow("catalogue not JSON") << QStringList {"--cert", cert, "--key", key, "--catalogue", badJson} << "is not a JSON object";
    QTest::newRow("catalogue without entries") << QStringList {"--cert", cert, "--key", key, "--catalogue", garbage} << "holds no entries";
}

void ReferenceUpdateServerTest::programRefusesABadSetup()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, message);

    QProcess program;
    if (!arguments.contains(QStringLiteral("--port")))
        arguments << QStringLiteral("--port") << QStringLiteral("0");
    program.start(UpdateServerProcess::program(), arguments);
    QVERIFY(program.waitForFinished(kWait));
    QCOMPARE(program.exitStatus(), QProcess::NormalExit);
    QCOMPARE(program.exitCode(), 1);
    const QString error = QString::fromLocal8Bit(program.readAllStandardError());
    QVERIFY2(error.contains(message), qPrintable(error));
    QVERIFY(program.readAllStandardOutput().isEmpty()); // it never claimed to listen
}

void ReferenceUpdateServerTest::programRefusesABusyPort()
{
    QTcpServer occupant;
    QVERIFY(occupant.listen(QHostAddress::LocalHost, 0));
    QProcess program;
    program.start(UpdateServerProcess::program(),
        {"--cert",
            m_server.certificates().serverCertificatePath(),
            "--key",
            m_server.certificates().serverKeyPath(),
            "--port",
            QString::number(occupant.serverPort())});
    QVERIFY(program.waitForFinished(kWait));
    QCOMPARE(program.exitCode(), 2);
    QVERIFY(QString::fromLocal8Bit(program.readAllStandardError()).contains(QStringLiteral("cannot listen on 127.0.0.1:%1").arg(occupant.serverPort())));
}

void ReferenceUpdateServerTest::stopsCleanlyOnSigterm()
{
    QVERIFY(m_server.stop());
    QVERIFY(m_server.process().outputLines().last().endsWith(QStringLiteral("gui_helpers_update_server stopped")));
}

QTEST_GUILESS_MAIN(ReferenceUpdateServerTest)
#include "referenceupdateservertest.moc"
