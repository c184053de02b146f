// SPDX-License-Identifier: MIT
//
// The client against the reference update server as a separate process: catalogue
// answers, the fault switches, and the program's own checks of its command line.
#include "serverrequests.h"
#include "settingsfile.h"
#include "testhelpers.h"
#include "updateservercomm.h"
#include "updateserverprocess.h"

#include <QProcess>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

namespace
{

constexpr int kWait = 15000;

veltrax::SettingsFile vxaTree(const QByteArray& text)
{
    veltrax::SettingsFile tree;
    tree.readVxaString(text.toStdString());
    return tree;
}

const QByteArray kCatalogue = "ProductA.ProductA.v2021_0_2.date=J:1609459200\n"
                              "ProductA.ProductA.v2021_0_2.url=S:https://downloads.example.invalid/a-2021.0.2.exe\n"
                              "ProductA.ProductA.v2021_0_2.beta=B:N\n"
                              "ProductA.ProductA.v2022_1_0.date=J:1650000000\n"
                              "ProductA.ProductA.v2022_1_0.url=S:https://downloads.example.invalid/a-2022.1.0.exe\n"
                              "ProductA.ProductA.v2022_1_0.beta=B:Y\n"
                              "0330A1B2.firmware.03300000.versions=S:v4_1_0\n";

/** Runs @p request ("LIST id", "LIS2T id mask", "GET id version" or "GET2 id mask version"). */
veltrax::SettingsFile ask(const UpdateServerOptions& options, const QString& request)
{
    UpdateServerComm comm(nullptr, options);
    const QStringList w = request.split(QLatin1Char(' '));
    if (w[0] == QLatin1String("LIST"))
        return runRequest<ServerListRequest>(comm, w[1], QString());
    if (w[0] == QLatin1String("LIS2T"))
        return runRequest<ServerList2Request>(comm, w[1], w[2]);
    if (w[0] == QLatin1String("GET"))
        return runRequest<ServerGetRequest>(comm, w[1], QString(), w[2]);
    return runRequest<ServerGet2Request>(comm, w[1], w[2], w[3]);
}

/** Empty when @p tree holds every setting of @p expected with its value; else the first it lacks. */
QString missingFrom(const veltrax::SettingsFile& tree, const veltrax::SettingsFile& expected)
{
    for (const auto& setting : expected.flattened()) {
        if (!(tree.setting(setting.first) == setting.second))
            return QString::fromStdString(setting.first);
    }
    return QString();
}

} // namespace

class ReferenceUpdateServerTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void answers_data();
    void answers();
    void usageWithoutInboxIsRefused();
    void programRefusesABadSetup_data();
    void programRefusesABadSetup();
    void stopsCleanlyOnSigterm();

private:
    QTemporaryDir m_dir;
    QTcpServer m_occupant;
    UpdateServerProcess m_server;
};

void ReferenceUpdateServerTest::initTestCase()
{
    if (UpdateServerProcess::program().isEmpty())
        QSKIP("the reference update server is not built");
    QVERIFY(m_dir.isValid());
    QVERIFY(m_occupant.listen(QHostAddress::LocalHost, 0));
    m_server.setCatalogue(vxaTree(kCatalogue));
    QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
}

void ReferenceUpdateServerTest::answers_data()
{
    QTest::addColumn<QStringList>("serverArguments"); // none: the shared server
    QTest::addColumn<QString>("request");
    QTest::addColumn<QByteArray>("expected"); // settings the reply holds; none: an empty tree
    QTest::addColumn<QString>("serverLine");

    const QByteArray listA = "ProductA.v2021_0_2.url=S:https://downloads.example.invalid/a-2021.0.2.exe\n"
                             "ProductA.v2022_1_0.date=J:1650000000\nProductA.v2022_1_0.beta=B:Y\n";
    const QString json = makeFile(
        m_dir, QStringLiteral("catalogue.json"), R"({"Tool":{"Tool":{"v1_0_0":{"url":"https://example.invalid/t.exe","date":1600000000,"beta":false}}}})");
    QTest::newRow("list") << QStringList() << "LIST ProductA" << listA << "LIST ProductA  -> LIST ";
    QTest::newRow("get2") << QStringList() << "GET2 0330A1B2 FFF00000 v1" << QByteArray("firmware.03300000.versions=S:v4_1_0\n") << QString();
    QTest::newRow("unknown id") << QStringList() << "LIS2T NoSuchProduct m"
                                << QByteArray("error.message=S:Unknown id NoSuchProduct\nerror.command=S:LIS2T\nerror.id=S:NoSuchProduct\nerror.mask=S:m\n")
                                << QString();
    QTest::newRow("plain get refused") << QStringList() << "GET ProductA v1"
                                       << QByteArray("error.message=S:GET is not supported, use GE2T\nerror.command=S:GET\nerror.version=S:v1\n") << QString();
    QTest::newRow("json catalogue") << QStringList {"--catalogue", json} << "LIST Tool"
                                    << QByteArray("Tool.v1_0_0.url=S:https://example.invalid/t.exe\nTool.v1_0_0.date=J:1600000000\n") << QString();
    // Replies split a byte at a time: updateserverreplyassemblertest; a close at each byte: updateserverclosetest.
    QTest::newRow("reply split and paced") << QStringList {"--chunk-size", "7", "--chunk-interval", "3"} << "LIST ProductA" << listA << QString();
    QTest::newRow("reply delayed") << QStringList {"--delay", "150"} << "LIST ProductA" << listA << QString();
    QTest::newRow("connection closed mid-reply") << QStringList {"--close-after", "12"} << "LIST ProductA" << QByteArray() << QString();
    QTest::newRow("every request refused") << QStringList {"--answer-error", "down for maintenance"} << "LIST ProductA"
                                           << QByteArray("error.message=S:down for maintenance\n") << QString();
}

void ReferenceUpdateServerTest::answers()
{
    QFETCH(QStringList, serverArguments);
    QFETCH(QString, request);
    QFETCH(QByteArray, expected);
    QFETCH(QString, serverLine);

    UpdateServerProcess own(&m_server.certificates());
    UpdateServerProcess* server = &m_server;
    if (!serverArguments.isEmpty()) {
        if (!serverArguments.contains(QStringLiteral("--catalogue")))
            own.setCatalogue(vxaTree(kCatalogue));
        own.setExtraArguments(serverArguments);
        QVERIFY2(own.start(), qPrintable(own.errorString()));
        server = &own;
    }
    const veltrax::SettingsFile tree = ask(server->options(), request);
    if (expected.isEmpty())
        QCOMPARE(tree.size(), size_t(0)); // the dropped connection leaves an empty tree
    else
        QCOMPARE(missingFrom(tree, vxaTree(expected)), QString());
    QVERIFY(serverLine.isEmpty() || server->process().waitForOutputLine(serverLine));
    QVERIFY(own.stop());
}

// Usage logs reaching the inbox byte for byte: usagestatisticssendingtest; terminate() ending a
// wait for a silent server: updateservercommtest and usagestatisticssendingtest.
void ReferenceUpdateServerTest::usageWithoutInboxIsRefused()
{
    UpdateServerProcess noInbox(&m_server.certificates());
    noInbox.setUseInbox(false);
    QVERIFY2(noInbox.start(), qPrintable(noInbox.errorString()));
    UpdateServerComm comm(nullptr, noInbox.options());
    const veltrax::SettingsFile tree = runRequest<SendUsageDataToServer>(comm, m_dir.filePath(QStringLiteral("A_1.log")), QStringLiteral("A_"));
    QCOMPARE(missingFrom(tree, vxaTree("error.message=S:Usage data are not accepted here\nerror.command=S:USAGE\n")), QString());
}

void ReferenceUpdateServerTest::programRefusesABadSetup_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("message");

    const QString cert = m_server.certificates().serverCertificatePath();
    const QString key = m_server.certificates().serverKeyPath();
    const QString missing = m_dir.filePath(QStringLiteral("missing.pem"));
    const QString garbage = makeFile(m_dir, QStringLiteral("garbage.txt"), "this is not PEM and not a catalogue {\n");
    const QString badJson = makeFile(m_dir, QStringLiteral("bad.json"), readFile(garbage));
    const QString busy = QString::number(m_occupant.serverPort());

    QTest::newRow("no certificate") << QStringList {"--key", key} << 1 << "--cert and --key are required";
    QTest::newRow("certificate file missing") << QStringList {"--cert", missing, "--key", key} << 1 << "cannot read the certificate file";
    QTest::newRow("certificate not PEM") << QStringList {"--cert", garbage, "--key", key} << 1 << "no PEM certificate in";
    QTest::newRow("key not PEM") << QStringList {"--cert", cert, "--key", garbage} << 1 << "no unencrypted PEM private key";
    QTest::newRow("port out of range") << QStringList {"--cert", cert, "--key", key, "--port", "70000"} << 1 << "--port must be a whole number from 0 to 65535";
    QTest::newRow("port not a number") << QStringList {"--cert", cert, "--key", key, "--port", "http"} << 1 << "--port must be a whole number";
    QTest::newRow("address not an address") << QStringList {"--cert", cert, "--key", key, "--address", "no.such.host"} << 1
                                            << "--address must be an IP address";
    QTest::newRow("catalogue missing") << QStringList {"--cert", cert, "--key", key, "--catalogue", missing} << 1 << "cannot read the catalogue file";
    QTest::newRow("catalogue not JSON") << QStringList {"--cert", cert, "--key", key, "--catalogue", badJson} << 1 << "is not a JSON object";
    QTest::newRow("catalogue without entries") << QStringList {"--cert", cert, "--key", key, "--catalogue", garbage} << 1 << "holds no entries";
    QTest::newRow("port taken") << QStringList {"--cert", cert, "--key", key, "--port", busy} << 2 << "cannot listen on 127.0.0.1:" + busy;
}

void ReferenceUpdateServerTest::programRefusesABadSetup()
{
    QFETCH(QStringList, arguments);
    QFETCH(int, exitCode);
    QFETCH(QString, message);

    QProcess program;
    if (!arguments.contains(QStringLiteral("--port")))
        arguments << QStringLiteral("--port") << QStringLiteral("0");
    program.start(UpdateServerProcess::program(), arguments);
    QVERIFY(program.waitForFinished(kWait));
    QCOMPARE(program.exitStatus(), QProcess::NormalExit);
    QCOMPARE(program.exitCode(), exitCode);
    const QString error = QString::fromLocal8Bit(program.readAllStandardError());
    QVERIFY2(error.contains(message), qPrintable(error));
    QVERIFY(program.readAllStandardOutput().isEmpty()); // it never claimed to listen
}

void ReferenceUpdateServerTest::stopsCleanlyOnSigterm()
{
    QVERIFY(m_server.stop());
    QVERIFY(m_server.process().outputLines().last().endsWith(QStringLiteral("gui_helpers_update_server stopped")));
}

QTEST_GUILESS_MAIN(ReferenceUpdateServerTest)
#include "referenceupdateservertest.moc"
