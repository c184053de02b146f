// SPDX-License-Identifier: MIT
//
// Installer download: throughput and peak memory of AutoUpdate downloading and verifying a
// signed 256 MiB installer, against curl -o of the same file from the same local server.
//
// Without arguments this program orchestrates: it writes and signs the file (minisign),
// serves its folder with python3's http.server on 127.0.0.1, and runs itself as a child
// ("--download") and curl, so the child's peak resident memory is that of a process doing
// nothing but the download.
#include "autoupdate.h"
#include "benchcommon.h"
#include "settingsfile.h"
#include "variant.h"

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>

#include <random>

namespace
{

qint64 rssBytes(const char* field)
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith(field))
            return line.mid(static_cast<int>(std::strlen(field))).trimmed().split(' ').first().toLongLong() * 1024;
    }
    return 0;
}

class BenchHost : public AutoUpdatable
{
public:
    VxVersion currentVersion() const override { return VxVersion(1, 0, 0); }
    QString productName() const override { return QStringLiteral("Bench"); }
    int updateCheckInterval() const override { return 0; }
    UpdateServerOptions updateServerOptions() const override { return {QStringLiteral("127.0.0.1"), 1}; }
    int64_t licenseDateLimit() const override { return 0; }
    Journaller* journaller() const override { return nullptr; }
    bool allowBetaVersions() const override { return false; }
};

int downloadOnce(const QString& url, const QString& key, const QString& folder)
{
    BenchHost host;
    AutoUpdate autoUpdate(&host);
    autoUpdate.setTrustedUpdateKeys({key});
    autoUpdate.setDownloadFolder(folder);
    veltrax::SettingsFile list;
    list.setSetting("Bench.v2_0_0.date", veltrax::Variant(1600000000L));
    list.setSetting("Bench.v2_0_0.url", veltrax::Variant(url.toStdString()));
    list.setSetting("Bench.v2_0_0.beta", veltrax::Variant(false));
    // The list normally arrives from the update server; here it is handed over directly.
    QMetaObject::invokeMethod(&autoUpdate, "handleListReply", Qt::DirectConnection, Q_ARG(veltrax::SettingsFile, list));
    const qint64 idle = rssBytes("VmRSS:");

    QElapsedTimer timer;
    int rc = 1;
    QObject::connect(&autoUpdate, &AutoUpdate::installerSaved, [&](const QString& path) {
        std::printf("{\"seconds\": %.6f, \"bytes\": %lld, \"peakRss\": %lld, \"idleRss\": %lld}\n",
            timer.nsecsElapsed() / 1e9,
            QFileInfo(path).size(),
            rssBytes("VmHWM:"),
            idle);
        rc = 0;
        QCoreApplication::quit();
    });
    QObject::connect(&autoUpdate, &AutoUpdate::downloadFailed, [](const QString& reason) {
        std::fprintf(stderr, "download failed: %s\n", qPrintable(reason));
        QCoreApplication::quit();
    });
    QTimer::singleShot(600000, [] {
        std::fprintf(stderr, "download timed out\n");
        QCoreApplication::quit();
    });
    timer.start();
    if (!autoUpdate.updateToVersion(QStringLiteral("v2_0_0"), nullptr))
        return 1;
    QCoreApplication::exec();
    return rc;
}

bool run(const QString& program, const QStringList& arguments, QByteArray* output = nullptr)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.start(program, arguments);
    if (!process.waitForFinished(600000) || process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0) {
        std::fprintf(stderr, "%s failed\n", qPrintable(program));
        return false;
    }
    if (output)
        *output = process.readAllStandardOutput();
    return true;
}

int orchestrate()
{
    QTemporaryDir dir;
    const qint64 size = static_cast<qint64>(bench::scaled(256u * 1024 * 1024));
    const QString file = dir.filePath(QStringLiteral("installer.run"));
    {
        QFile out(file);
        std::mt19937_64 random(42);
        QByteArray chunk(1 << 20, Qt::Uninitialized);
        if (!out.open(QIODevice::WriteOnly))
            return 1;
        for (qint64 written = 0; written < size; written += chunk.size()) {
            for (int i = 0; i + 8 <= chunk.size(); i += 8) {
                const quint64 value = random();
                std::memcpy(chunk.data() + i, &value, 8);
            }
            out.write(chunk.constData(), qMin<qint64>(chunk.size(), size - written));
        }
    }
    if (!run(QStringLiteral("minisign"), {"-G", "-W", "-p", dir.filePath("key.pub"), "-s", dir.filePath("key.sec")})
        || !run(QStringLiteral("minisign"), {"-S", "-s", dir.filePath("key.sec"), "-m", file}))
        return 1;
    QFile pub(dir.filePath(QStringLiteral("key.pub")));
    pub.open(QIODevice::ReadOnly);
    const QString key = QString::fromLatin1(pub.readAll().split('\n').value(1));

    quint16 port = 0;
    {
        QTcpServer probe;
        probe.listen(QHostAddress::LocalHost);
        port = probe.serverPort();
    }
    QProcess server;
    server.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    server.setStandardOutputFile(QProcess::nullDevice());
    server.start(QStringLiteral("python3"), {"-m", "http.server", QString::number(port), "--bind", "127.0.0.1", "--directory", dir.path()});
    const QString url = QStringLiteral("http://127.0.0.1:%1/installer.run").arg(port);
    bool up = false;
    for (int i = 0; i < 100 && !up; ++i) {
        QTcpSocket socket;
        socket.connectToHost(QHostAddress::LocalHost, port);
        up = socket.waitForConnected(100);
        if (!up)
            QThread::msleep(100);
    }
    if (!up)
        return 1;

    const QString folder = dir.filePath(QStringLiteral("saved"));
    QDir().mkpath(folder);
    double ours = 0;
    double curl = 0;
    double peak = 0;
    double idle = 0;
    for (int round = 0; round < 3; ++round) {
        QByteArray report;
        if (!run(QCoreApplication::applicationFilePath(), {"--download", url, key, folder}, &report))
            return 1;
        const QJsonObject o = QJsonDocument::fromJson(report).object();
        if (o.value("bytes").toDouble() != size)
            return 1;
        ours = qMax(ours, size / o.value("seconds").toDouble() / (1 << 20));
        peak = qMax(peak, o.value("peakRss").toDouble() / (1 << 20));
        idle = o.value("idleRss").toDouble() / (1 << 20);

        QByteArray seconds;
        if (!run(QStringLiteral("curl"), {"-s", "-o", dir.filePath("curl.run"), "-w", "%{time_total}", url}, &seconds))
            return 1;
        curl = qMax(curl, size / seconds.toDouble() / (1 << 20));
    }
    server.terminate();
    server.waitForFinished(5000);

    const std::string mib = std::to_string(size >> 20) + " MiB";
    bench::row("installer download + verify throughput, " + mib, ours, "curl -o", curl, "MiB/s", true, ">= 0.9");
    bench::row("installer download peak RSS, " + mib, peak, "budget", 64, "MiB", false, ">= 1.0");
    bench::row("installer download peak RSS above idle, " + mib, peak - idle, "idle AutoUpdate", idle, "MiB", false, "");
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 5 && std::strcmp(argv[1], "--download") == 0) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
        QApplication app(argc, argv);
        return downloadOnce(QString::fromLocal8Bit(argv[2]), QString::fromLocal8Bit(argv[3]), QString::fromLocal8Bit(argv[4]));
    }
    QCoreApplication app(argc, argv);
    return orchestrate();
}
