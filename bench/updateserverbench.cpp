// SPDX-License-Identifier: MIT
//
// The reference update server under load: TLS handshakes and list requests per second
// with 200 clients at once from one event loop, against the same work done by one client
// at a time, and the server's resident memory after the run against before it.
#include "benchcommon.h"
#include "loadclient.h"
#include "settingsfile.h"

#include <QCoreApplication>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QTemporaryDir>
#include <QThread>

namespace
{

QByteArray serialized(const veltrax::SettingsFile& tree)
{
    VxByteArray bytes;
    tree.serialize(bytes);
    return QByteArray(bytes.data(), int(bytes.size()));
}

double rssMiB(qint64 pid)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    const QRegularExpressionMatch m = QRegularExpression(QStringLiteral("VmRSS:\\s+(\\d+) kB")).match(QString::fromLatin1(status.readAll()));
    return m.captured(1).toDouble() / 1024;
}

[[noreturn]] void fail(const char* what)
{
    std::fprintf(stderr, "updateserverbench: %s\n", what);
    std::exit(1);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QTemporaryDir dir;
    for (const char* command : {"req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 -subj /CN=Bench -keyout ca.key -out ca.pem",
             "req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -subj /CN=localhost -keyout server.key -out server.csr",
             "x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 2 -extfile server.ext -out server.pem"}) {
        QFile ext(dir.filePath(QStringLiteral("server.ext")));
        if (ext.open(QIODevice::WriteOnly))
            ext.write("extendedKeyUsage=serverAuth\nsubjectAltName=IP:127.0.0.1\n");
        ext.close();
        QProcess openssl;
        openssl.setWorkingDirectory(dir.path());
        openssl.start(QStringLiteral("openssl"), QString::fromLatin1(command).split(QLatin1Char(' ')));
        if (!openssl.waitForFinished(30000) || openssl.exitCode() != 0)
            fail("openssl failed");
    }
    QFile caFile(dir.filePath(QStringLiteral("ca.pem")));
    caFile.open(QIODevice::ReadOnly);
    QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
    tls.setCaCertificates({QSslCertificate(caFile.readAll())});
    QSslConfiguration::setDefaultConfiguration(tls);

    constexpr int kProducts = 4;
    veltrax::SettingsFile catalogue;
    for (int p = 0; p < kProducts; ++p) {
        for (int v = 0; v <= p * 3; ++v) {
            const std::string release = "Product" + std::to_string(p) + ".Product" + std::to_string(p) + ".v2024_" + std::to_string(v) + "_0";
            catalogue.setSetting(release + ".url", veltrax::Variant("https://downloads.example.invalid/p" + std::to_string(p) + "-" + std::to_string(v)));
            catalogue.setSetting(release + ".date", veltrax::Variant(int64_t(1700000000) + v));
        }
    }
    catalogue.writeVxa(dir.filePath(QStringLiteral("catalogue.vxa")).toStdString(), std::string(), "-");
    QVector<LoadClient::Exchange> lists;
    for (int p = 0; p < kProducts; ++p) {
        const QByteArray body = serialized(catalogue.subTree("Product" + std::to_string(p)));
        lists.append({"LIST Product" + QByteArray::number(p) + " FF\n", "LIST " + QByteArray::number(body.size()) + ' ' + body});
    }

    QProcess server;
    QByteArray output;
    QObject::connect(&server, &QProcess::readyReadStandardOutput, [&] {
        // One line per request: keep only the start, so the pipe never fills.
        if (output.size() < 4096)
            output += server.readAllStandardOutput();
        else
            server.readAllStandardOutput();
    });
    server.start(QStringLiteral(GUI_HELPERS_UPDATE_SERVER_PROGRAM),
        {"--port", "0", "--cert", dir.filePath("server.pem"), "--key", dir.filePath("server.key"), "--catalogue", dir.filePath("catalogue.vxa")});
    const QRegularExpression listening(QStringLiteral("listening on 127.0.0.1:(\\d+)"));
    for (int i = 0; i < 300 && !listening.match(QString::fromLatin1(output)).hasMatch(); ++i)
        server.waitForReadyRead(100);
    const quint16 port = quint16(listening.match(QString::fromLatin1(output)).captured(1).toUInt());
    if (port == 0)
        fail("the server did not start");
    const QString host = QStringLiteral("127.0.0.1");

    const int clients = 200;
    const int requests = int(bench::scaled(50));
    const auto script = [&](int count) {
        return [&, count](int client) {
            QVector<LoadClient::Exchange> s;
            for (int r = 0; r < count; ++r)
                s << lists.at((client + r) % kProducts);
            return s;
        };
    };
    const auto settle = [&] {
        QThread::msleep(300);
        QCoreApplication::processEvents();
    };

    if (!runLoad(host, port, clients, script(1), 60000).ok())
        fail("the warm-up run failed");
    settle();
    const double before = rssMiB(server.processId());
    const LoadResult load = runLoad(host, port, clients, script(requests), 120000);
    if (!load.ok())
        fail("the load run failed");
    settle();
    const double after = rssMiB(server.processId());

    // The same work, one client at a time.
    double alone = 0;
    for (int i = 0; i < 50; ++i) {
        const LoadResult one = runLoad(host, port, 1, script(0), 10000);
        if (!one.ok())
            fail("a lone handshake failed");
        alone += one.handshakeSeconds;
    }
    const LoadResult sequential = runLoad(host, port, 1, script(clients * requests / 10), 120000);
    if (!sequential.ok())
        fail("the lone client failed");

    const std::string shape = std::to_string(clients) + " clients";
    bench::row("update server handshakes, " + shape + " at once", clients / load.handshakeSeconds, "one client at a time", 50 / alone, "1/s", true);
    bench::row("update server LIST, " + shape + " x " + std::to_string(requests),
        load.requests / load.requestSeconds,
        "one client, requests in turn",
        sequential.requests / sequential.requestSeconds,
        "1/s",
        true);
    bench::row("update server RSS after the run", after, "budget: before + 10%", before * 1.1, "MiB", false, ">= 1.0");

    server.terminate();
    server.waitForFinished(10000);
    return 0;
}
