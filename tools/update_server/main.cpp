// SPDX-License-Identifier: MIT
//
// gui_helpers_update_server: the reference update server. See --help.
#include "quitonsignals.h"
#include "referenceserver.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QHostAddress>
#include <QSslSocket>

#include <csignal>
#include <cstdio>
#include <sys/socket.h>

namespace
{

[[noreturn]] void fail(const QString& message, int code = 1)
{
    std::fprintf(stderr, "gui_helpers_update_server: %s\n", qPrintable(message));
    std::exit(code);
}

QByteArray readFile(const QString& path, const char* what)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        fail(QStringLiteral("cannot read the %1 file %2: %3").arg(QLatin1String(what), path, file.errorString()));
    return file.readAll();
}

veltrax::SettingsFile loadCatalogue(const QString& path)
{
    veltrax::SettingsFile catalogue;
    if (path.isEmpty())
        return catalogue;
    const QByteArray text = readFile(path, "catalogue");
    bool ok;
    if (QFileInfo(path).suffix().compare(QLatin1String("json"), Qt::CaseInsensitive) == 0) {
        ok = catalogue.readJsonString(text.toStdString());
        if (!ok)
            fail(QStringLiteral("the catalogue %1 is not a JSON object").arg(path));
    } else {
        try {
            catalogue.readVxaString(text.toStdString());
            ok = true;
        } catch (const std::exception& e) {
            fail(QStringLiteral("the catalogue %1 cannot be read: %2").arg(path, QString::fromUtf8(e.what())));
        }
    }
    if (catalogue.subTrees(true).size() == 0)
        fail(QStringLiteral("the catalogue %1 holds no entries (expected one subtree per request id)").arg(path));
    return catalogue;
}

int intOption(const QCommandLineParser& parser, const QString& name, int minimum, int maximum)
{
    bool ok = false;
    const qlonglong value = parser.value(name).toLongLong(&ok);
    if (!ok || value < minimum || value > maximum)
        fail(QStringLiteral("--%1 must be a whole number from %2 to %3, not \"%4\"").arg(name).arg(minimum).arg(maximum).arg(parser.value(name)));
    return static_cast<int>(value);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("gui_helpers_update_server"));
    QCoreApplication::setApplicationVersion(QStringLiteral("1.0"));

    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Reference update server. Answers LIST, LIS2T and GE2T requests over TLS from a catalogue and stores the logs of USAGE records in an "
                       "inbox.\n\n"
                       "The catalogue is a settings tree in a .json or .vxa file holding one subtree per request id; the reply to \"LIST X mask\" (and LIS2T, "
                       "GE2T) is the subtree X, an ERROR reply when there is none. GET is answered with ERROR. Each log of a USAGE record is stored as "
                       "<inbox>/<name>.log, where <name> is the log's setting name with unsafe characters replaced (\"-1\", \"-2\"... added when taken); the "
                       "record is then acknowledged with \"ACK 5 USAGE\", only after every log is completely on disk.\n\n"
                       "A request line is at most 4096 bytes. A client that sends a longer one, or a USAGE record with an unreadable or too large length, "
                       "is answered with ERROR and its connection closed; other clients are not affected.\n\n"
                       "Prints \"listening on <address>:<port>\" when ready and one line per request on standard output. Stops cleanly on SIGINT or SIGTERM. "
                       "Exit codes: 0 after a clean stop, 1 for bad options or files, 2 when it cannot listen."));
    parser.addHelpOption();
    parser.addVersionOption();
    const QList<QCommandLineOption> options = {
        {QStringLiteral("address"), QStringLiteral("Address to listen on (default 127.0.0.1)."), QStringLiteral("address"), QStringLiteral("127.0.0.1")},
        {QStringLiteral("port"), QStringLiteral("TCP port; 0 lets the system choose (default 4433)."), QStringLiteral("port"), QStringLiteral("4433")},
        {QStringLiteral("cert"), QStringLiteral("Server certificate (PEM; may hold the chain). Required."), QStringLiteral("file")},
        {QStringLiteral("key"), QStringLiteral("Private key of the certificate (PEM, RSA or EC, unencrypted). Required."), QStringLiteral("file")},
        {QStringLiteral("catalogue"), QStringLiteral("Catalogue tree (.json or .vxa). Without one every id is unknown."), QStringLiteral("file")},
        {QStringLiteral("inbox"),
            QStringLiteral("Directory for received usage logs (created if missing). Without one, USAGE gets ERROR."),
            QStringLiteral("dir")},
        {QStringLiteral("close-after"),
            QStringLiteral("Fault: write only the first <bytes> of each reply, then close the connection."),
            QStringLiteral("bytes")},
        {QStringLiteral("chunk-size"), QStringLiteral("Fault: write replies in pieces of <bytes>."), QStringLiteral("bytes")},
        {QStringLiteral("chunk-interval"), QStringLiteral("Pause between pieces in ms (default 5)."), QStringLiteral("ms"), QStringLiteral("5")},
        {QStringLiteral("delay"), QStringLiteral("Fault: wait <ms> before each reply."), QStringLiteral("ms"), QStringLiteral("0")},
        {QStringLiteral("answer-error"), QStringLiteral("Fault: answer every request with ERROR <text>."), QStringLiteral("text")},
        {QStringLiteral("never-answer"), QStringLiteral("Fault: read requests but never answer.")},
        {QStringLiteral("max-record"),
            QStringLiteral("Largest USAGE record body accepted, in bytes, at most 1073741824 (default 67108864). A record declared larger is answered "
                           "with ERROR and the connection closed, before any of it is read."),
            QStringLiteral("bytes"),
            QStringLiteral("67108864")},
        {QStringLiteral("idle-timeout"),
            QStringLiteral("Close a connection that sends nothing for <seconds>, the TLS handshake included; 0 never closes (default 60)."),
            QStringLiteral("seconds"),
            QStringLiteral("60")},
    };
    parser.addOptions(options);
    parser.process(app);
    if (!parser.positionalArguments().isEmpty())
        fail(QStringLiteral("unexpected argument \"%1\" (see --help)").arg(parser.positionalArguments().first()));

    if (!QSslSocket::supportsSsl())
        fail(QStringLiteral("TLS is not available (libssl missing?)"));

    if (!parser.isSet(QStringLiteral("cert")) || !parser.isSet(QStringLiteral("key")))
        fail(QStringLiteral("--cert and --key are required (see --help)"));
    const QString certPath = parser.value(QStringLiteral("cert"));
    const QList<QSslCertificate> chain = QSslCertificate::fromData(readFile(certPath, "certificate"), QSsl::Pem);
    if (chain.isEmpty() || chain.first().isNull())
        fail(QStringLiteral("no PEM certificate in %1").arg(certPath));
    const QString keyPath = parser.value(QStringLiteral("key"));
    const QByteArray keyBytes = readFile(keyPath, "key");
    QSslKey key(keyBytes, QSsl::Rsa, QSsl::Pem);
    if (key.isNull())
        key = QSslKey(keyBytes, QSsl::Ec, QSsl::Pem);
    if (key.isNull())
        fail(QStringLiteral("no unencrypted PEM private key (RSA or EC) in %1").arg(keyPath));

    const int port = intOption(parser, QStringLiteral("port"), 0, 65535);
    QHostAddress address;
    const QString addressText = parser.value(QStringLiteral("address"));
    if (addressText == QLatin1String("localhost"))
        address = QHostAddress::LocalHost;
    else if (!address.setAddress(addressText))
        fail(QStringLiteral("--address must be an IP address, not \"%1\"").arg(addressText));

    ServerBehaviour behaviour;
    if (parser.isSet(QStringLiteral("inbox"))) {
        behaviour.inbox = QFileInfo(parser.value(QStringLiteral("inbox"))).absoluteFilePath();
        if (!QDir().mkpath(behaviour.inbox))
            fail(QStringLiteral("cannot create the inbox %1").arg(behaviour.inbox));
    }
    if (parser.isSet(QStringLiteral("close-after")))
        behaviour.closeAfter = intOption(parser, QStringLiteral("close-after"), 0, INT_MAX);
    if (parser.isSet(QStringLiteral("chunk-size")))
        behaviour.chunkSize = intOption(parser, QStringLiteral("chunk-size"), 1, INT_MAX);
    behaviour.chunkIntervalMs = intOption(parser, QStringLiteral("chunk-interval"), 0, 60000);
    behaviour.delayMs = intOption(parser, QStringLiteral("delay"), 0, 3600000);
    behaviour.answerError = parser.value(QStringLiteral("answer-error"));
    if (parser.isSet(QStringLiteral("answer-error")) && behaviour.answerError.isEmpty())
        fail(QStringLiteral("--answer-error needs a text"));
    behaviour.neverAnswer = parser.isSet(QStringLiteral("never-answer"));
    behaviour.maxRecordSize = intOption(parser, QStringLiteral("max-record"), 0, 1 << 30);
    behaviour.idleTimeoutMs = intOption(parser, QStringLiteral("idle-timeout"), 0, 86400) * 1000;

    const veltrax::SettingsFile catalogue = loadCatalogue(parser.value(QStringLiteral("catalogue")));

    if (!quitOnSignals(app))
        fail(QStringLiteral("cannot set up signal handling"));
    std::signal(SIGPIPE, SIG_IGN);

    ReferenceServer server(chain, key, catalogue, behaviour);
    if (!server.listen(address, static_cast<quint16>(port)))
        fail(QStringLiteral("cannot listen on %1:%2: %3").arg(address.toString()).arg(port).arg(server.errorString()), 2);
    // Qt 5 listens with a backlog of 50: a burst of clients beyond that would see their
    // connection attempts dropped and retried seconds later. Listening again only widens it.
    ::listen(static_cast<int>(server.socketDescriptor()), SOMAXCONN);

    ReferenceServer::logLine(QStringLiteral("gui_helpers_update_server listening on %1:%2").arg(server.serverAddress().toString()).arg(server.serverPort()));
    const int result = app.exec();
    server.close();
    ReferenceServer::logLine(QStringLiteral("gui_helpers_update_server stopped"));
    return result;
}
