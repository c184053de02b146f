// SPDX-License-Identifier: MIT
//
// Anonymous usage statistics: the user's consent, one plain-text log of use events per run
// of the application, and the daily hand-over of finished logs to the update server.
#pragma once

#include "gui_helpers_export.h"
#include "updateservercomm.h"

#include <QDate>
#include <QObject>
#include <QString>
#include <QStringList>

#include <memory>

class AbstractUsageStatisticsSingletonPrivate;

/**
 * Base class through which a host application records anonymous use events.
 *
 * Each run writes one log file, "<prefix><anonymous ID>_<milliseconds>.log", in the
 * directory "UsageLogs" under the application's data location. It starts with a header
 * (application version, anonymous ID, operating system, optional extra text, date,
 * language) followed by "Events:" and one line per event: the time stamp in milliseconds
 * since the epoch, a space and the event text. Files are written in UTF-8.
 *
 * The host derives from this class, supplies the four texts, creates the one instance and
 * stores it in gAbstractUsageStatisticsSingleton. At start it calls recreateLogFile(), then
 * logUseEvent() for each use, startSendingUsageData() when it wants to send, and at the end
 * logUseEvent(closingEvent()) and cleanup().
 *
 * Sending happens at most once per calendar day and only with consent: the finished logs
 * of this application (those of earlier runs, and this run's once its closing event was
 * logged) travel to the update server in one USAGE record; once the server has
 * acknowledged them they are deleted (unless "DeleteLogFiles" forbids it) and the day is
 * stored under "UsageDataWasSentOn". A failed sending keeps both for a later attempt.
 *
 * Consent and the other choices live in the application's QSettings, group
 * "UsageStatistics"; the anonymous ID is shared by all applications of the organisation
 * (settings application "GUID", key "SystemUniqueID"), and the header's language is the
 * organisation's "Locale"/"ChosenLocale" setting. All calls belong on the GUI thread.
 *
 * Kept on purpose, odd as they look: a user who never decided counts as consenting (the
 * first allowLogFilesForUser() stores an empty value, so firstTimeRunningUsage() is false
 * from then on); allowLogFilesForDev() always answers "default"; machines whose local domain
 * contains "veltrax" get the ID "veltrax_<host name>" so the maker's own machines are
 * recognisable; every log header reports build 6323, revision 112641 and 64 bit, whatever
 * the build; closing a run's log appends "_closed" to the remembered path only.
 */
class GUI_HELPERS_EXPORT AbstractUsageStatisticsSingleton : public QObject
{
    Q_OBJECT
public:
    /** Neither creates a log nor reads settings. */
    AbstractUsageStatisticsSingleton();
    /** Ends any server connection without waiting, then closes the log of this run. */
    ~AbstractUsageStatisticsSingleton() override;

    /** Text in front of the anonymous ID in each log name; also selects this application's logs among others. */
    virtual QString logFilePrefix() = 0;
    /** Logged once each time a log is (re)created. */
    virtual QString openingEvent() = 0;
    /** Logging this event ends the log of this run. */
    virtual QString closingEvent() = 0;
    /** Extra header line; empty for none. */
    virtual QString extraHeaderText() = 0;

    /** The instance the host stored in gAbstractUsageStatisticsSingleton (null when none). */
    static AbstractUsageStatisticsSingleton* instance();
    /** Forgets the stored instance first, then deletes it. */
    static void cleanup();

    /** True while the user has never been asked: no consent key at all. Writes nothing. */
    bool firstTimeRunningUsage();
    /**
     * The user's consent. Undecided counts as consent; the first call stores an empty value,
     * so firstTimeRunningUsage() is false from then on although the user has not decided.
     */
    bool allowLogFilesForUser();
    /**
     * Stores the user's decision when it differs from the previous one (an undecided user
     * counts as having decided the opposite, so a first decision is always stored).
     * Granting starts a new log with the opening event; withdrawing closes and deletes the
     * log of this run.
     */
    void setAllowLogFilesForUser(bool allow);
    /** The developer switch has no effect in this library: always "default". */
    QString allowLogFilesForDev();
    /** Does nothing (see allowLogFilesForDev()). */
    void setAllowLogFilesForDevToDefault();
    /** May sent logs be deleted ("DeleteLogFiles"; absent or empty means yes). Writes nothing. */
    bool allowedToDeleteLogFiles();

    /**
     * Starts the log of this run, without the opening event (see recreateLogFile()). Without
     * consent nothing happens. A log still open from before is closed (not deleted) first.
     * A directory or file that cannot be made, or a header that cannot be written, leaves
     * no log; events are then silently dropped.
     */
    void createLogFile();
    /** createLogFile(), then the opening event once. */
    void recreateLogFile();

    /**
     * Journals "logUseEvent<QString> <event>" at JLL_WRITE and appends an event line to the
     * log. With @p once set the event is skipped when it was logged with @p once before since
     * the last createLogFile() call, even if there was no log to write it to then; the same
     * text logged without @p once neither counts nor is skipped.
     * The closing event ends the log: the file is closed and becomes one of the finished logs
     * that removeLogFiles() deletes and sending hands over. A failed write deletes the log.
     * Only the QString form of the template exists; the overloads below take text literals.
     */
    template <typename T> void logUseEvent(T event, bool once = false);
    /** logUseEvent() with UTF-8 text, e.g. a string literal. */
    inline void logUseEvent(const char* event, bool once = false);
    /** logUseEvent() with Latin-1 text. */
    inline void logUseEvent(QLatin1String event, bool once = false);

    /** Closes the log of this run and deletes it from disk. A log that is not open is left alone. */
    void closeAndRemoveCurrentLog();
    /**
     * Deletes this application's finished logs (names containing logFilePrefix(),
     * case-sensitive) from the log directory, unless "DeleteLogFiles" forbids it. The log
     * being written is never deleted; other files are left alone. Failures are ignored.
     */
    void removeLogFiles();

    /**
     * Sends the finished logs to the update server in @p options, unless the user has not
     * consented or they were already sent today. "OverrideServerAddress" and
     * "OverrideServerPort" replace the server (see overrideServerAndPort()). The first
     * sending opens the connection; later ones in this run reuse it, with its first
     * options, until terminateServerConnection(). Nothing is sent before the first log
     * of this run was created. Returns at once; the reply arrives in handleReplyFromServer().
     *
     * A call that finds today's sending already done still marks a reply as outstanding, so
     * terminateServerConnection() with a time-out then waits the full time-out.
     */
    void startSendingUsageData(UpdateServerOptions options);
    /**
     * Applies the override keys in place. A key that is present but empty selects the
     * built-in server (GUI_HELPERS_DEFAULT_UPDATE_SERVER) or port 443; an absent key keeps
     * the given value. The difference is deliberate.
     */
    void overrideServerAndPort(QString& address, int& port);
    /**
     * Waits up to @p timeout milliseconds (0: not at all), processing events, for the reply
     * to an outstanding sending; then ends and destroys the connection, so that a later
     * sending opens a fresh one.
     */
    void terminateServerConnection(int timeout);

    /** Full path of the current log; ends in "_closed" once that log was closed (the file keeps its name). Empty before the first log. */
    QString logFilePath() const;
    /** Directory of the logs, ending in a separator; empty before the first log. */
    QString logDirectory() const;

    // ---- Transparency, the organisation's switch and the record of what was sent ----

    /**
     * Full paths, sorted by name, of the logs the next sending would carry: this
     * application's files in the log directory (names containing logFilePrefix()) except
     * the log being written. Copies kept in "Sent" are never among them. Empty before the
     * first log, because nothing is sent then.
     */
    QStringList pendingLogFiles() const;
    /**
     * The tree the next sending would carry, built by the very function the sending uses:
     * one binary setting per pending log, keyed by the log's base name. Reads the files
     * now; a log finished later is not in it.
     */
    veltrax::SettingsFile pendingUsageData() const;

    /**
     * True when the organisation has switched usage statistics off: the environment
     * variable VELTRAX_USAGE_STATISTICS is "0", "off", "false" or "no" (any case), or the
     * system-scope settings of the organisation (application "UsageStatistics") hold
     * Disabled=true. Then allowLogFilesForUser() is false and stores nothing,
     * setAllowLogFilesForUser() does nothing, firstTimeRunningUsage() is false (there is
     * nothing to ask), no log is created and nothing is sent. Read anew on every call.
     */
    static bool disabledByPolicy();

    /**
     * Keep sent logs for @p days days instead of deleting them (0, the default, deletes
     * them; negative counts as 0). After an accepted sending the logs that would have been
     * deleted move into the sub-folder "Sent" of the log directory, stamped with the time
     * of the move, and copies stamped more than @p days days ago are removed. Nothing in
     * "Sent" is sent again. "DeleteLogFiles" forbidding deletion keeps the logs in place.
     */
    void setKeepSentLogs(int days);
    /** The days set with setKeepSentLogs(). */
    int keepSentLogs() const;
    /** Full paths, sorted by name, of this application's copies in "Sent"; empty before the first log. */
    QStringList sentLogFiles() const;
    /** The day the server last accepted a sending ("UsageDataWasSentOn"); invalid when never. */
    QDate lastAcceptedSending() const;
    /**
     * The user's explicit "delete what was collected": removes this application's logs
     * except the one being written, and its copies in "Sent", even when "DeleteLogFiles"
     * forbids the deletion after sending.
     */
    void deleteCollectedLogs();

    /** The host's instance; nothing in this class sets it. */
    static AbstractUsageStatisticsSingleton* gAbstractUsageStatisticsSingleton;

public Q_SLOTS:
    /**
     * The server's answer to a sending. A tree with a non-empty "error" section means
     * failure: logs and date stay as they were. Anything else counts as accepted, the empty
     * tree of a connection that dropped before the acknowledgement included: the sent logs
     * are deleted (as far as "DeleteLogFiles" allows) and today is stored.
     */
    void handleReplyFromServer(const veltrax::SettingsFile& settingsFile);

Q_SIGNALS:
    /**
     * A sending's reply has been handled: @p accepted as handleReplyFromServer() decided,
     * and otherwise @p reason holds the server's refusal or the connection's failure text
     * (empty when accepted). Calls that send nothing (no consent, already sent today, no
     * log yet) emit nothing.
     */
    void usageDataSendingFinished(bool accepted, const QString& reason);

private:
    Q_DISABLE_COPY(AbstractUsageStatisticsSingleton)

    void closeLogAfterLastEvent();

    std::unique_ptr<AbstractUsageStatisticsSingletonPrivate> const d;
};

template <> GUI_HELPERS_EXPORT void AbstractUsageStatisticsSingleton::logUseEvent<QString>(QString event, bool once);

void AbstractUsageStatisticsSingleton::logUseEvent(const char* event, bool once)
{
    logUseEvent<QString>(QString::fromUtf8(event), once);
}

void AbstractUsageStatisticsSingleton::logUseEvent(QLatin1String event, bool once)
{
    logUseEvent<QString>(QString(event), once);
}
