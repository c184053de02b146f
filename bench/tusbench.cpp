// SPDX-License-Identifier: MIT
//
// Upload throughput and peak memory of TusUploader against tus-js-client, both sending
// the same 256 MiB file to the same real tus server on loopback with the same chunk size.
//
// Without arguments this program orchestrates: it starts the server, and for each chunk
// size runs itself as a child ("--upload") and then tus-js-client, so each client's peak
// resident memory is that of a process doing nothing but the upload.
#include "benchcommon.h"
#include "tusuploader.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTimer>

#include <random>

namespace
{

const QString sourceDir = QStringLiteral(GUI_HELPERS_SOURCE_DIR);

qint64 peakRssBytes()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith("VmHWM:"))
            return line.mid(6).trimmed().split(' ').first().toLongLong() * 1024;
    }
    return 0;
}

int uploadOnce(const QString& endpoint, const QString& file, qint64 chunkSize)
{
    auto* uploader = new TusUploader(endpoint);
    uploader->setChunkSize(chunkSize);
    QElapsedTimer timer;
    int rc = 1;
    QObject::connect(uploader, &TusUploader::uploadFinished, [&] {
        const double seconds = timer.nsecsElapsed() / 1e9;
        std::printf("{\"seconds\": %.6f, \"bytes\": %lld, \"peakRss\": %lld}\n", seconds, QFileInfo(file).size(), peakRssBytes());
        rc = 0;
        QCoreApplication::quit();
    });
    QObject::connect(uploader, &TusUploader::uploadFailed, [&](const QString&, const QString& reason) {
        std::fprintf(stderr, "upload failed: %s\n", qPrintable(reason));
        QCoreApplication::quit();
    });
    QTimer::singleShot(600000, [] {
        std::fprintf(stderr, "upload timed out\n");
        QCoreApplication::quit();
    });
    timer.start();
    if (!uploader->startUploadFile(file, QStringLiteral("filename ") + QString::fromLatin1(QByteArrayLiteral("bench.bin").toBase64())))
        return 1;
    QCoreApplication::exec();
    return rc;
}

QJsonObject runClient(const QString& program, const QStringList& args)
{
    QProcess p;
    p.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    p.start(program, args);
    if (!p.waitForFinished(600000) || p.exitCode() != 0) {
        std::fprintf(stderr, "%s failed\n", qPrintable(program));
        std::exit(1);
    }
    const QList<QByteArray> lines = p.readAllStandardOutput().trimmed().split('\n');
    return QJsonDocument::fromJson(lines.last()).object();
}

void emptyDirectory(const QString& path)
{
    QDir dir(path);
    for (const QString& name : dir.entryList(QDir::Files))
        dir.remove(name);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() == 5 && args[1] == QLatin1String("--upload"))
        return uploadOnce(args[2], args[3], args[4].toLongLong());

    const QString node = QStandardPaths::findExecutable(QStringLiteral("node"));
    const QString serverScript = sourceDir + QStringLiteral("/tests/tus/server.js");
    const QString clientScript = sourceDir + QStringLiteral("/bench/tus/upload.js");
    if (node.isEmpty() || !QDir(sourceDir + QStringLiteral("/tests/tus/node_modules")).exists()
        || !QDir(sourceDir + QStringLiteral("/bench/tus/node_modules")).exists()) {
        std::fprintf(stderr, "tusbench needs node and the npm packages of tests/tus and bench/tus (run scripts/setup.sh)\n");
        return 1;
    }

    QTemporaryDir dir;
    const QString store = dir.filePath(QStringLiteral("store"));
    QDir().mkpath(store);
    const QString file = dir.filePath(QStringLiteral("upload.bin"));
    const qint64 size = static_cast<qint64>(bench::scaled(256u << 20));
    {
        QFile f(file);
        f.open(QIODevice::WriteOnly);
        std::mt19937_64 random(42);
        QByteArray block(1 << 20, '\0');
        for (qint64 written = 0; written < size; written += block.size()) {
            for (int i = 0; i < block.size(); i += 8) {
                const quint64 v = random();
                std::memcpy(block.data() + i, &v, 8);
            }
            f.write(block.constData(), std::min<qint64>(block.size(), size - written));
        }
    }

    QProcess server;
    server.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    server.setWorkingDirectory(sourceDir + QStringLiteral("/tests/tus"));
    server.start(node, {serverScript, QStringLiteral("0"), store, dir.filePath(QStringLiteral("requests.log"))});
    if (!server.waitForReadyRead(20000)) {
        std::fprintf(stderr, "tus server did not start\n");
        return 1;
    }
    const QByteArray ready = server.readLine().trimmed();
    const QString endpoint = QStringLiteral("http://127.0.0.1:%1/files").arg(QString::fromLatin1(ready.mid(ready.indexOf(' ') + 1)));

    const double mib = 1024.0 * 1024.0;
    for (qint64 chunk : {qint64(4) << 20, qint64(32) << 20}) {
        const QString chunkText = QString::number(chunk);
        const QJsonObject ours = runClient(QCoreApplication::applicationFilePath(), {QStringLiteral("--upload"), endpoint, file, chunkText});
        emptyDirectory(store);
        const QJsonObject peer = runClient(node, {clientScript, file, endpoint, chunkText});
        emptyDirectory(store);

        const std::string label = std::to_string(size >> 20) + " MiB, " + std::to_string(chunk >> 20) + " MiB chunks";
        bench::row("tus upload throughput, " + label,
            size / mib / ours[QStringLiteral("seconds")].toDouble(),
            "tus-js-client",
            size / mib / peer[QStringLiteral("seconds")].toDouble(),
            "MiB/s",
            true,
            ">= 0.9");
        const double budget = (3.0 * chunk + 50 * mib) / mib;
        bench::row(
            "tus upload peak RSS, " + label, ours[QStringLiteral("peakRss")].toDouble() / mib, "budget: 3 chunks + 50 MiB", budget, "MiB", false, ">= 1.0");
        bench::row("tus upload peak RSS, " + label,
            ours[QStringLiteral("peakRss")].toDouble() / mib,
            "tus-js-client",
            peer[QStringLiteral("peakRss")].toDouble() / mib,
            "MiB",
            false,
            "");
    }
    server.terminate();
    server.waitForFinished(5000);
    return 0;
}
