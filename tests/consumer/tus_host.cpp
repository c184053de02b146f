// SPDX-License-Identifier: MIT
// A host that uses the tus uploader only (see aboutbox_host.cpp).
#include <gui_helpers/tusuploader.h>

#include <QCoreApplication>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    TusUploader uploader(QStringLiteral("http://127.0.0.1:9/files"));
    const bool started = uploader.startUploadFile(QStringLiteral("/nonexistent"), QString());
    return !started && uploader.getState() == TusState::Error ? 0 : 1;
}
