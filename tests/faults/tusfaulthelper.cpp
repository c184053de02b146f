// SPDX-License-Identifier: MIT
//
// Uploads one file with resume on, for tusfaulttest, which kills this process mid-upload
// and runs it again:
//
//   tusfaulthelper <creation URL> <file> <settings directory> <chunk size>
//
// Writes one line per request ("POST", "HEAD", "PATCH <offset>"), per progress report
// ("progress <bytes>") and at the end ("finished <upload URL>" or "failed <reason>"),
// flushed at once so that the test can act on each. Exits 0 when the upload finished.
#include "tusuploader.h"

#include <QCoreApplication>
#include <QNetworkRequest>
#include <QSettings>

#include <cstdio>

namespace
{
void say(const QByteArray& line)
{
    std::fputs(line.constData(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

class LoggingUploader : public TusUploader
{
public:
    using TusUploader::TusUploader;
    QNetworkRequest& prepareRequest(QNetworkRequest& request) override
    {
        const QByteArray verb = request.attribute(QNetworkRequest::CustomVerbAttribute).toByteArray();
        if (request.hasRawHeader("Upload-Offset"))
            say("PATCH " + request.rawHeader("Upload-Offset"));
        else
            say(verb.isEmpty() ? QByteArray("POST") : verb);
        return request;
    }
};
} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QStringList arguments = app.arguments();
    if (arguments.size() != 5) {
        say("usage: tusfaulthelper <creation URL> <file> <settings directory> <chunk size>");
        return 2;
    }
    QCoreApplication::setOrganizationName(QStringLiteral("tusfaulthelper"));
    QCoreApplication::setApplicationName(QStringLiteral("tusfaulthelper"));
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, arguments.at(3));

    LoggingUploader uploader(arguments.at(1));
    uploader.setResumable(true);
    uploader.setRetryDelays({100, 100, 100});
    uploader.setChunkSize(arguments.at(4).toLongLong());
    QObject::connect(&uploader, &TusUploader::uploadProgress, [](const QString&, qint64, qint64 sent, int, qint64) {
        say("progress " + QByteArray::number(sent));
    });
    QObject::connect(&uploader, &TusUploader::uploadFinished, [&] {
        say("finished " + uploader.serverFilePath().toUtf8());
        app.exit(0);
    });
    QObject::connect(&uploader, &TusUploader::uploadFailed, [&](const QString&, const QString& reason) {
        say("failed " + reason.toUtf8());
        app.exit(1);
    });
    if (!uploader.startUploadFile(arguments.at(2), QString()))
        return 1;
    return app.exec();
}
