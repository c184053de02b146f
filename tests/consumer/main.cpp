// SPDX-License-Identifier: MIT
// Compiles against the umbrella header and calls into each installed library.
#include <gui_helpers/gui_helpers.h>

#include <QApplication>
#include <cstdio>

namespace
{
class HostUsage : public AbstractUsageStatisticsSingleton
{
public:
    QString logFilePrefix() override { return QStringLiteral("consumer_"); }
    QString openingEvent() override { return QStringLiteral("started"); }
    QString closingEvent() override { return QStringLiteral("ended"); }
    QString extraHeaderText() override { return QString(); }
};
} // namespace

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    if (createTimeStamp(QTime(23, 59, 59, 999)) != 86399999)
        return 1;
    if (VxVersion::fromString("1.2.3").minor() != 2)
        return 2;
    if (std::string(journalLevelText(JLL_WRITE)) != "[WRITE] ")
        return 3;
    // The widgets and helpers a host creates itself: constructors, meta objects and statics.
    QString name = QStringLiteral("a*b");
    int position = 0;
    if (FilePathValidator::validateFileName(name) != 0 || QFileNameValidator(nullptr).validate(name, position) != QValidator::Invalid)
        return 4;
    AboutBox about;
    about.addComponent(QStringLiteral("zlib"), QStringLiteral("1.2.13"));
    if (about.findTabByName(QStringLiteral("Other Components")) < 0 || GridSplitter().defaultStretch() != 10000)
        return 5;
    TusUploader uploader(QStringLiteral("http://127.0.0.1:9/files"));
    if (uploader.startUploadFile(QStringLiteral("/nonexistent"), QString()) || uploader.getState() != TusState::Error)
        return 6;
    if (comPortDisplayName(QStringLiteral("/dev/ttyS0")) != QStringLiteral("/dev/ttyS0"))
        return 7;
    (void)qEnumerateSerialPorts();
    // Text literals compile and link: no log is open, so nothing is written.
    HostUsage usage;
    usage.logUseEvent("started");
    usage.logUseEvent(QLatin1String("used"), true);
    std::printf("consumer OK\n");
    return 0;
}
