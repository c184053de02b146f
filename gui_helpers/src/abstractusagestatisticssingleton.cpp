// SPDX-License-Identifier: MIT
#include "abstractusagestatisticssingleton.h"

#include "gui_helpers_config.h"
#include "journaller.h"
#include "settingsfile.h"
#include "updateserverprotocol.h"
#include "usagestatisticsdata_p.h"
#include "variant.h"
#include "vxtypes.h"

#include <QCoreApplication>
#include <QDate>
#include <QDateTime>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QHostInfo>
#include <QLocale>
#include <QPointer>
#include <QSet>
#include <QSettings>
#include <QStandardPaths>
#include <QSysInfo>
#include <QTextStream>
#include <QTimer>
#include <QUuid>

#include <atomic>
#include <memory>

namespace
{
const QString GUID_REG_KEY = QStringLiteral("GUID");
const QString SYSTEM_GUID_REG_KEY = QStringLiteral("SystemUniqueID");
const QString USAGE_REGISTRY_GROUP = QStringLiteral("UsageStatistics");
const QString DELETE_LOGS_REG_KEY = QStringLiteral("DeleteLogFiles");
const QString ALLOW_USAGE_FOR_USERS_REG_KEY = QStringLiteral("AllowUsageLogsForUsers");
const QString LAST_SENDING_REG_KEY = QStringLiteral("UsageDataWasSentOn");
const QString OVERRIDE_SERVER_ADDRESS_REG_KEY = QStringLiteral("OverrideServerAddress");
const QString OVERRIDE_SERVER_PORT_REG_KEY = QStringLiteral("OverrideServerPort");
const QString DEFAULT_VALUE = QStringLiteral("default");

const QString LOCALE_SETTINGS_APPLICATION = QStringLiteral("Locale");
const QString CHOSEN_LOCALE_KEY = QStringLiteral("ChosenLocale");
const QString CLOSED_SUFFIX = QStringLiteral("_closed");
const QString SENT_FOLDER = QStringLiteral("Sent");
const QString POLICY_VARIABLE = QStringLiteral("VELTRAX_USAGE_STATISTICS");
const QString POLICY_DISABLED_KEY = QStringLiteral("Disabled");

// Build and source revision of the statistics format, reported in every header.
const QString USAGE_BUILD_NUMBER = QStringLiteral("6323");
const QString USAGE_SOURCE_REVISION = QStringLiteral("112641");

// Absent keys and the empty text that allowLogFilesForUser() stores both mean "undecided".
bool isEmptyValue(const QVariant& value)
{
    return value.toString().isEmpty();
}

// Moves the logs an accepted sending would delete into "Sent", stamped now, and prunes the
// copies stamped more than @p days days ago. A log that cannot be moved is deleted as usual.
void keepSentCopies(const QString& logFilePath, const QString& prefix, int days)
{
    const QFileInfo current(logFilePath);
    const QDir dir(current.absolutePath());
    dir.mkpath(SENT_FOLDER);
    const QDir sent(dir.absoluteFilePath(SENT_FOLDER));
    const QDateTime now = QDateTime::currentDateTime();
    const QStringList paths = usagestatistics::finishedLogPaths(logFilePath, prefix);
    for (const QString& path : paths) {
        const QString target = sent.absoluteFilePath(QFileInfo(path).fileName());
        QFile::remove(target); // the same name is the same log
        QFile file(path);
        if (!file.rename(target)) {
            QFile::remove(path);
            continue;
        }
        // The file keeps its last write time across the move; the age counts from the sending.
        if (file.open(QIODevice::Append))
            file.setFileTime(now, QFileDevice::FileModificationTime);
    }
    const QDateTime oldest = now.addDays(-days);
    const QFileInfoList copies = sent.entryInfoList(QDir::Files | QDir::NoDotAndDotDot);
    for (const QFileInfo& copy : copies) {
        if (copy.fileName().contains(prefix) && copy.lastModified() < oldest)
            QFile::remove(copy.absoluteFilePath());
    }
}
} // namespace

QStringList usagestatistics::finishedLogPaths(const QString& logFilePath, const QString& pattern)
{
    const QFileInfo logFile(logFilePath);
    const QDir dir(logFile.absolutePath());
    const QString ownName = logFile.fileName();
    QStringList paths;
    const QStringList entries = dir.entryList(QDir::Files | QDir::NoDotAndDotDot, QDir::Unsorted);
    for (const QString& entry : entries) {
        const QString fullName = dir.absolutePath() + QDir::separator() + entry;
        // The log being written now shares the pattern; it stays out.
        if (fullName.contains(pattern) && !fullName.contains(ownName))
            paths << fullName;
    }
    return paths;
}

veltrax::SettingsFile usagestatistics::collectFinishedLogs(const QString& logFilePath, const QString& pattern)
{
    veltrax::SettingsFile logs;
    const QStringList paths = finishedLogPaths(logFilePath, pattern);
    for (const QString& fullName : paths) {
        QFile file(fullName);
        if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
            continue;
        const QByteArray text = QString::fromUtf8(file.readAll()).toUtf8();
        file.close();
        veltrax::BinaryObject blob(text.constData(), static_cast<uint32_t>(text.size()));
        logs.setSetting(QFileInfo(fullName).baseName().toStdString(), veltrax::Variant(blob));
    }
    return logs;
}

QByteArray usagestatistics::usageRecord(const veltrax::SettingsFile& logs)
{
    VxByteArray body;
    logs.serialize(body);
    QByteArray record = QStringLiteral("%1 %2 ").arg(QLatin1String(updateserver::USAGE)).arg(body.size()).toUtf8();
    record.append(body.data(), static_cast<int>(body.size()));
    return record;
}

class AbstractUsageStatisticsSingletonPrivate
{
public:
    std::unique_ptr<QFile> logFile;
    QString logFilePath;
    QString logDirectory;
    std::unique_ptr<UpdateServerComm> serverConnection;
    QSet<QString> onceLogged;
    /** True while no sending is outstanding; read while the reply may be arriving. */
    std::atomic<bool> replyHandled {true};
    /** The loop terminateServerConnection() waits in, ended early by the reply. */
    QEventLoop* replyWait = nullptr;
    /** Days sent logs are kept in "Sent"; 0 deletes them as soon as they were accepted. */
    int keepSentDays = 0;
    /** Set during the user's explicit deletion, which "DeleteLogFiles" does not stop. */
    bool deletionRequestedByUser = false;
};

AbstractUsageStatisticsSingleton* AbstractUsageStatisticsSingleton::gAbstractUsageStatisticsSingleton = nullptr;

AbstractUsageStatisticsSingleton::AbstractUsageStatisticsSingleton()
    : QObject(nullptr)
    , d(new AbstractUsageStatisticsSingletonPrivate)
{
}

AbstractUsageStatisticsSingleton::~AbstractUsageStatisticsSingleton()
{
    terminateServerConnection(0);
    // Requests still winding down are our children; a QThread must not be destroyed while
    // its thread runs. The connection is gone, so each is past its last use of it.
    const QList<ServerRequest*> requests = findChildren<ServerRequest*>(QString(), Qt::FindDirectChildrenOnly);
    for (ServerRequest* request : requests)
        request->wait();
    if (d->logFile && d->logFile->isOpen()) {
        d->logFile->flush();
        d->logFile->close();
        d->logFile.reset();
        d->logFilePath += CLOSED_SUFFIX;
    }
}

AbstractUsageStatisticsSingleton* AbstractUsageStatisticsSingleton::instance()
{
    return gAbstractUsageStatisticsSingleton;
}

void AbstractUsageStatisticsSingleton::cleanup()
{
    if (AbstractUsageStatisticsSingleton* doomed = gAbstractUsageStatisticsSingleton) {
        // Forget it first so nothing reached from the destructor finds a half-destroyed instance.
        gAbstractUsageStatisticsSingleton = nullptr;
        delete doomed;
    }
}

QString AbstractUsageStatisticsSingleton::logFilePath() const
{
    return d->logFilePath;
}

QString AbstractUsageStatisticsSingleton::logDirectory() const
{
    return d->logDirectory;
}

bool AbstractUsageStatisticsSingleton::firstTimeRunningUsage()
{
    if (disabledByPolicy())
        return false;
    QSettings settings;
    settings.beginGroup(USAGE_REGISTRY_GROUP);
    return !settings.contains(ALLOW_USAGE_FOR_USERS_REG_KEY);
}

bool AbstractUsageStatisticsSingleton::allowLogFilesForUser()
{
    if (disabledByPolicy())
        return false;
    QSettings settings;
    settings.beginGroup(USAGE_REGISTRY_GROUP);
    if (!settings.contains(ALLOW_USAGE_FOR_USERS_REG_KEY))
        settings.setValue(ALLOW_USAGE_FOR_USERS_REG_KEY, QString(QLatin1String("")));
    const QVariant stored = settings.value(ALLOW_USAGE_FOR_USERS_REG_KEY);
    if (isEmptyValue(stored))
        return true;
    return stored.toBool();
}

void AbstractUsageStatisticsSingleton::setAllowLogFilesForUser(bool allow)
{
    if (disabledByPolicy())
        return;
    {
        QSettings settings;
        settings.beginGroup(USAGE_REGISTRY_GROUP);
        const QVariant stored = settings.value(ALLOW_USAGE_FOR_USERS_REG_KEY);
        const bool previous = isEmptyValue(stored) ? !allow : stored.toBool();
        if (previous == allow)
            return;
        settings.setValue(ALLOW_USAGE_FOR_USERS_REG_KEY, allow);
    }
    if (allow)
        recreateLogFile();
    else
        closeAndRemoveCurrentLog();
}

QString AbstractUsageStatisticsSingleton::allowLogFilesForDev()
{
    return DEFAULT_VALUE;
}

void AbstractUsageStatisticsSingleton::setAllowLogFilesForDevToDefault()
{
}

bool AbstractUsageStatisticsSingleton::allowedToDeleteLogFiles()
{
    QSettings settings;
    settings.beginGroup(USAGE_REGISTRY_GROUP);
    const QVariant stored = settings.value(DELETE_LOGS_REG_KEY);
    if (isEmptyValue(stored))
        return true;
    return stored.toBool();
}

void AbstractUsageStatisticsSingleton::createLogFile()
{
    const QString LOG_FILE_EXTENSION = QStringLiteral(".log");
    const QString VELTRAX_GUID_PREFIX = QStringLiteral("veltrax");

    d->onceLogged.clear();
    allowLogFilesForDev();
    if (!allowLogFilesForUser())
        return;

    const QString organization = QCoreApplication::organizationName();
    QString id;
    {
        QSettings guidSettings(organization, GUID_REG_KEY);
        id = guidSettings.value(SYSTEM_GUID_REG_KEY).toString();
        if (id.isEmpty()) {
            // Machines on our own network are recognisable by name on purpose.
            if (QHostInfo::localDomainName().contains(VELTRAX_GUID_PREFIX, Qt::CaseInsensitive))
                id = VELTRAX_GUID_PREFIX + QLatin1Char('_') + QHostInfo::localHostName();
            else
                id = QUuid::createUuid().toString();
            if (id.contains(QLatin1Char('{')) && id.contains(QLatin1Char('}'))) {
                id.remove(QLatin1Char('{'));
                id.remove(QLatin1Char('}'));
            }
            guidSettings.setValue(SYSTEM_GUID_REG_KEY, id);
        }
    }

    d->logDirectory = QStandardPaths::writableLocation(QStandardPaths::DataLocation) + QDir::separator() + QStringLiteral("UsageLogs") + QDir::separator();
    d->logFilePath = d->logDirectory + logFilePrefix() + id + QLatin1Char('_') + QString::number(VxTimeStamp_now()) + LOG_FILE_EXTENSION;

    QDir dir(d->logDirectory);
    if (!dir.exists())
        dir.mkpath(QStringLiteral("."));

    // Replacing the QFile closes a log a caller left open; the file itself stays on disk.
    d->logFile = std::make_unique<QFile>(d->logFilePath);
    d->logFile->open(QIODevice::WriteOnly | QIODevice::Truncate);
    if (!d->logFile->isOpen())
        return;

    QString language = QStringLiteral("en");
    {
        const QSettings localeSettings(organization, LOCALE_SETTINGS_APPLICATION);
        if (localeSettings.contains(CHOSEN_LOCALE_KEY))
            language = localeSettings.value(CHOSEN_LOCALE_KEY).toString();
    }
    const QLocale english(QLocale::English, QLocale::LatinScript, QLocale::AnyCountry);

    QTextStream stream(d->logFile.get());
    // The same bytes whatever the user's locale, so the server can read every log alike.
    stream.setCodec("UTF-8");
    stream << QStringLiteral("Version %1 build %2, rev %3. %4 bit")
                  .arg(QCoreApplication::applicationVersion(), USAGE_BUILD_NUMBER, USAGE_SOURCE_REVISION, QStringLiteral("64"))
           << "\n";
    stream << "AnonRefID: " << id << "\n";
    stream << QStringLiteral("OS: %1 %2").arg(QSysInfo::productType(), QSysInfo::productVersion()) << "\n";
    const QString extra = extraHeaderText();
    if (!extra.isEmpty())
        stream << extra << "\n";
    stream << "Date: " << english.toString(QDate::currentDate(), QStringLiteral("yyyy-MM-dd")) << "\n";
    stream << QStringLiteral("Language: %1").arg(language) << "\n\n";
    stream << "Events:\n";
    stream.flush();
    if (stream.status() == QTextStream::WriteFailed)
        closeAndRemoveCurrentLog();
}

void AbstractUsageStatisticsSingleton::recreateLogFile()
{
    createLogFile();
    logUseEvent(openingEvent(), true);
}

template <> void AbstractUsageStatisticsSingleton::logUseEvent<QString>(QString event, bool once)
{
    if (once) {
        if (d->onceLogged.contains(event))
            return;
        d->onceLogged.insert(event);
    }

    JLOG_TO(gJournal, "logUseEvent<QString>", JLL_WRITE, event);

    if (!d->logFile || !d->logFile->isOpen())
        return;

    QTextStream::Status status;
    {
        QTextStream stream(d->logFile.get());
        stream.setCodec("UTF-8");
        stream << QString::number(VxTimeStamp_now()) << ' ' << event << "\n";
        stream.flush();
        status = stream.status();
    }
    if (status == QTextStream::WriteFailed) {
        closeAndRemoveCurrentLog();
        return;
    }
    if (event == closingEvent())
        closeLogAfterLastEvent();
}

void AbstractUsageStatisticsSingleton::closeLogAfterLastEvent()
{
    d->logFile->close();
    d->logFile.reset();
    // Only the remembered path changes: no file matches it any more, so removeLogFiles()
    // and sending treat this run's log like those of earlier runs.
    d->logFilePath += CLOSED_SUFFIX;
}

void AbstractUsageStatisticsSingleton::closeAndRemoveCurrentLog()
{
    if (!d->logFile || !d->logFile->isOpen())
        return;
    d->logFile->close();
    if (d->logFile->remove())
        d->logFile.reset();
}

void AbstractUsageStatisticsSingleton::removeLogFiles()
{
    if (!d->deletionRequestedByUser && !allowedToDeleteLogFiles())
        return;
    // Without a log there is no directory to look in (and an empty path would mean the
    // working directory).
    if (d->logFilePath.isEmpty())
        return;

    const QFileInfo current(d->logFilePath);
    const QString currentName = current.fileName();
    const QString prefix = logFilePrefix();
    const QDir dir(current.absolutePath());
    const QStringList entries = dir.entryList(QDir::Files | QDir::NoDotAndDotDot, QDir::Unsorted);
    for (const QString& entry : entries) {
        const QString fullName = dir.path() + QDir::separator() + entry;
        if (fullName.contains(prefix) && !fullName.contains(currentName))
            QFile::remove(fullName);
    }
}

QStringList AbstractUsageStatisticsSingleton::pendingLogFiles() const
{
    if (d->logFilePath.isEmpty())
        return {};
    auto* self = const_cast<AbstractUsageStatisticsSingleton*>(this); // the prefix is the host's, not state
    QStringList paths = usagestatistics::finishedLogPaths(d->logFilePath, self->logFilePrefix());
    paths.sort();
    return paths;
}

veltrax::SettingsFile AbstractUsageStatisticsSingleton::pendingUsageData() const
{
    if (d->logFilePath.isEmpty())
        return {};
    auto* self = const_cast<AbstractUsageStatisticsSingleton*>(this);
    return usagestatistics::collectFinishedLogs(d->logFilePath, self->logFilePrefix());
}

bool AbstractUsageStatisticsSingleton::disabledByPolicy()
{
    const QString variable = qEnvironmentVariable(qPrintable(POLICY_VARIABLE)).trimmed().toLower();
    if (variable == QLatin1String("0") || variable == QLatin1String("off") || variable == QLatin1String("false") || variable == QLatin1String("no"))
        return true;
    const QSettings system(QSettings::SystemScope, QCoreApplication::organizationName(), USAGE_REGISTRY_GROUP);
    return system.value(POLICY_DISABLED_KEY, false).toBool();
}

void AbstractUsageStatisticsSingleton::setKeepSentLogs(int days)
{
    d->keepSentDays = qMax(0, days);
}

int AbstractUsageStatisticsSingleton::keepSentLogs() const
{
    return d->keepSentDays;
}

QStringList AbstractUsageStatisticsSingleton::sentLogFiles() const
{
    if (d->logFilePath.isEmpty())
        return {};
    auto* self = const_cast<AbstractUsageStatisticsSingleton*>(this);
    const QString prefix = self->logFilePrefix();
    const QDir sent(QFileInfo(d->logFilePath).absolutePath() + QDir::separator() + SENT_FOLDER);
    QStringList paths;
    const QStringList entries = sent.entryList(QDir::Files | QDir::NoDotAndDotDot, QDir::Name);
    for (const QString& entry : entries) {
        if (entry.contains(prefix))
            paths << sent.absoluteFilePath(entry);
    }
    return paths;
}

QDate AbstractUsageStatisticsSingleton::lastAcceptedSending() const
{
    QSettings settings;
    settings.beginGroup(USAGE_REGISTRY_GROUP);
    return QDate::fromString(settings.value(LAST_SENDING_REG_KEY, QString()).toString(), Qt::TextDate);
}

void AbstractUsageStatisticsSingleton::deleteCollectedLogs()
{
    d->deletionRequestedByUser = true;
    removeLogFiles();
    d->deletionRequestedByUser = false;
    for (const QString& path : sentLogFiles())
        QFile::remove(path);
}

void AbstractUsageStatisticsSingleton::overrideServerAndPort(QString& address, int& port)
{
    QSettings settings;
    settings.beginGroup(USAGE_REGISTRY_GROUP);
    if (settings.contains(OVERRIDE_SERVER_ADDRESS_REG_KEY)) {
        const QString stored = settings.value(OVERRIDE_SERVER_ADDRESS_REG_KEY).toString();
        address = stored.isEmpty() ? QStringLiteral(GUI_HELPERS_DEFAULT_UPDATE_SERVER) : stored;
    }
    if (settings.contains(OVERRIDE_SERVER_PORT_REG_KEY)) {
        const QVariant stored = settings.value(OVERRIDE_SERVER_PORT_REG_KEY);
        // The built-in server is always reached on the standard TLS port, whatever port the
        // build configured for it.
        port = isEmptyValue(stored) ? 443 : stored.toInt();
    }
}

void AbstractUsageStatisticsSingleton::startSendingUsageData(UpdateServerOptions options)
{
    allowLogFilesForDev();
    const bool allowed = allowLogFilesForUser();
    overrideServerAndPort(options.serverAddress, options.port);
    if (!allowed)
        return;

    d->replyHandled.store(false);
    {
        QSettings settings;
        settings.beginGroup(USAGE_REGISTRY_GROUP);
        const QDate lastSent = QDate::fromString(settings.value(LAST_SENDING_REG_KEY, QString()).toString(), Qt::TextDate);
        // An empty or unreadable date is invalid and counts as long ago.
        if (lastSent.isValid() && lastSent >= QDate::currentDate())
            return;
    }

    if (!d->serverConnection)
        d->serverConnection = std::make_unique<UpdateServerComm>(this, options);
    if (d->logFilePath.isEmpty())
        return;

    auto* request = new SendUsageDataToServer(*d->serverConnection, d->logFilePath, logFilePrefix(), this);
    connect(request, &ServerRequest::reply, this, &AbstractUsageStatisticsSingleton::handleReplyFromServer);
    request->start();
}

void AbstractUsageStatisticsSingleton::handleReplyFromServer(const veltrax::SettingsFile& settingsFile)
{
    if (!settingsFile.hasSubTree(updateserver::ERROR_SECTION, false)) {
        if (d->keepSentDays > 0 && allowedToDeleteLogFiles() && !d->logFilePath.isEmpty())
            keepSentCopies(d->logFilePath, logFilePrefix(), d->keepSentDays);
        else
            removeLogFiles();
        QSettings settings;
        settings.beginGroup(USAGE_REGISTRY_GROUP);
        settings.setValue(LAST_SENDING_REG_KEY, QDate::currentDate().toString(Qt::TextDate));
    }
    d->replyHandled.store(true);
    if (d->replyWait)
        d->replyWait->quit();

    const veltrax::Variant message = settingsFile.subTree(updateserver::ERROR_SECTION).setting(updateserver::ERROR_MESSAGE_SETTING);
    const bool accepted = !settingsFile.hasSubTree(updateserver::ERROR_SECTION, false);
    Q_EMIT usageDataSendingFinished(accepted, accepted || message.empty() ? QString() : QString::fromStdString(message.toStdString()));
}

void AbstractUsageStatisticsSingleton::terminateServerConnection(int timeout)
{
    if (!d->serverConnection)
        return;

    if (timeout != 0 && !d->replyHandled.load()) {
        // The reply crosses from the request thread through the event queue, so wait by
        // running events, at most 100 ms at a time.
        const QPointer<AbstractUsageStatisticsSingleton> self(this);
        const VxTimeStamp start = VxTimeStamp_now();
        while (!d->replyHandled.load()) {
            const VxTimeStamp left = VxTimeStamp(timeout) - (VxTimeStamp_now() - start);
            if (left <= 0)
                break;
            QEventLoop loop;
            QTimer::singleShot(int(qMin<VxTimeStamp>(left, 100)), &loop, &QEventLoop::quit);
            d->replyWait = &loop;
            loop.exec();
            if (!self)
                return; // deleted by something the loop ran
            d->replyWait = nullptr;
        }
        // Something the loop ran may have ended the connection already.
        if (!d->serverConnection)
            return;
    }

    d->serverConnection->terminate();
    VxTime_msleep(120);
    d->serverConnection.reset();
}
