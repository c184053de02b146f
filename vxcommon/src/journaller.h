// SPDX-License-Identifier: MIT
//
// The diagnostic journal: leveled lines to a log file and, above a second threshold, to
// standard error. Lines are assembled per thread so concurrent writers never interleave
// inside a line. Library code logs through the JLOG family of macros, which prefix the
// calling function's name and cost one pointer test when journalling is off.
#pragma once

#include "vxcommon_export.h"
#include "vxtypes.h"

#include <QByteArray>
#include <QString>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>

/** Levels in increasing severity. Anything above JLL_WRITE as a threshold silences. */
enum JournalLogLevel : int {
    JLL_TRACE = 0,
    JLL_DEBUG = 1,
    JLL_ALERT = 2,
    JLL_ERROR = 3,
    JLL_FATAL = 4,
    JLL_WRITE = 5, ///< always written unless the journal is silenced
    JLL_DISABLE = 6,
};

/** "[TRACE] " .. "[WRITE] ", indexed by level. */
VXCOMMON_EXPORT extern const char* const gLogLevelString[6];

/** Text of @p level, or "[?????] " when it is out of range. */
VXCOMMON_EXPORT const char* journalLevelText(int level);

/** An optional second sink, asked per level whether it wants the message. */
class VXCOMMON_EXPORT AbstractAdditionalLogger
{
public:
    virtual ~AbstractAdditionalLogger();
    virtual bool wantsLevel(JournalLogLevel level) const = 0;
    virtual void log(JournalLogLevel level, int line, const char* function, const std::string& message) = 0;
};

/** The log file: a types-library text file with a reference count for shared use. */
class VXCOMMON_EXPORT JournalFile
{
public:
    /** Continues an existing file at its end, unless @p purge is set or it cannot be opened. */
    JournalFile(const VxString& fileName, bool purge);
    JournalFile(const JournalFile&) = delete;
    JournalFile& operator=(const JournalFile&) = delete;

    bool isOpen() const { return m_file.isOpen(); }
    const VxString& name() const { return m_name; }
    JournalFile& operator<<(const std::string& bytes);
    void write(const char* data, size_t size);
    void flush();
    /** False once a write failed (disk full, file gone): later lines are dropped. */
    bool good() const { return m_good; }

    int addRef() { return ++m_refCount; }
    int removeRef() { return --m_refCount; }
    int refCount() const { return m_refCount; }

private:
    VxFile m_file;
    VxString m_name;
    std::atomic<int> m_refCount {1};
    // Journals that share this file (moveLogs) write under different locks.
    std::atomic<bool> m_good {true};
};

/** Per-thread line buffers, all under one mutex. */
class VXCOMMON_EXPORT JournalThreader
{
public:
    struct ThreadLine {
        std::string line;
        JournalLogLevel level = JLL_TRACE;
    };

    /** A copy of the line being assembled by @p threadId (the entry is created on first use). */
    std::string line(uint32_t threadId);
    JournalLogLevel lineLevel(uint32_t threadId);
    void setLineLevel(uint32_t threadId, JournalLogLevel level);
    /** Hands the thread's line to @p file, or to standard error when @p file is null. */
    void writeLine(uint32_t threadId, JournalFile* file);
    /** Writes every buffered line and empties the buffers. */
    void flushAll(JournalFile* file);
    /** Drops the entry of @p threadId. */
    void cleanup(uint32_t threadId);

    /** The identifier the journal prints for the calling thread. */
    static uint32_t currentThreadId();

private:
    friend class Journaller;
    ThreadLine& entry(uint32_t threadId) { return m_lines[threadId]; }
    std::mutex m_mutex;
    std::map<uint32_t, ThreadLine> m_lines;
};

class Journaller;
/** The process-wide journal; null when journalling is off. The host owns it. */
VXCOMMON_EXPORT extern Journaller* gJournal;

class VXCOMMON_EXPORT Journaller
{
public:
    /** Log level and debug level both become @p level; flush level is JLL_ALERT. */
    Journaller(const VxString& fileName, bool purge, JournalLogLevel level);
    ~Journaller();
    Journaller(const Journaller&) = delete;
    Journaller& operator=(const Journaller&) = delete;

    /** Writes one line: time, thread, tag, level text, @p text, line feed. */
    void log(JournalLogLevel level, const std::string& text);
    /** Appends a piece to the calling thread's line; a piece ending in a line break, or an empty one, completes it. */
    void writeMessage(const std::string& piece);
    /** Completes the calling thread's line: to the file at or above the log level, to standard error strictly above the debug level. */
    void flushLine();
    /** Completes every thread's pending line and flushes the file. */
    void flush();

    /** True when a line at @p level would be admitted by log(). */
    bool isLevelEnabled(JournalLogLevel level) const
    {
        return level >= m_logLevel.load(std::memory_order_relaxed) || level >= m_debugLevel.load(std::memory_order_relaxed);
    }

    void setLogLevel(JournalLogLevel level, bool writeNotice = true);
    void setDebugLevel(JournalLogLevel level, bool writeNotice = true);
    void setFlushLevel(JournalLogLevel level, bool writeNotice = true);
    JournalLogLevel logLevel() const { return static_cast<JournalLogLevel>(m_logLevel.load()); }
    JournalLogLevel debugLevel() const { return static_cast<JournalLogLevel>(m_debugLevel.load()); }
    JournalLogLevel flushLevel() const { return static_cast<JournalLogLevel>(m_flushLevel.load()); }

    /**
     * Continues in @p newName. "Switching to file" goes to the old file first; when the new
     * file cannot be opened, "Could not switch to new log location" is written and the old
     * file stays in use. @p purge empties the new file; @p writeHeader writes the header there.
     */
    bool moveLogFile(const VxString& newName, bool purge, bool writeHeader = true);
    /** Continues in the file of @p other (shared, reference counted). */
    bool moveLogs(Journaller* other, bool writeHeader = true);
    /** "Journaller logging to <file> on <local time>" at JLL_WRITE. */
    void writeFileHeader();
    /** The current call stack between two banner lines, at @p level. */
    void writeCallstack(JournalLogLevel level);

    void setTag(const std::string& tag);
    std::string tag() const;
    /** A tag made of the file's base name without directory and extension, and a space ("app " for "/x/app.log"). */
    static std::string tagFromFilename(const std::string& fileName);
    std::string filename() const;
    /** Time field as local date and time instead of seconds since the epoch. */
    void setUseDateTime(bool useDateTime) { m_useDateTime = useDateTime; }
    /** Drops the calling thread's line buffer (call when a thread ends). */
    void cleanupThread();

    static void setAdditionalLogger(AbstractAdditionalLogger* logger);
    static AbstractAdditionalLogger* additionalLogger() { return m_additionalLogger.load(); }

    /**
     * The one entry of every journal line the libraries write (through the JLOG macros): to
     * @p journal when it is not null, and to the additional logger when it takes @p level.
     * Subsystems with a journal of their own pass it; everything else passes gJournal.
     */
    static void logTo(Journaller* journal, JournalLogLevel level, int line, const char* function, const std::string& message);
    /** True when @p journal or the additional logger would take a line at @p level. */
    static bool wantsLevel(Journaller* journal, JournalLogLevel level);

private:
    void init(const VxString& fileName, bool purge);
    void appendPieceLocked(JournalThreader::ThreadLine& tl, const char* data, size_t size);
    void flushLineLocked(JournalThreader::ThreadLine& tl);
    void switchFile(std::shared_ptr<JournalFile> file, const std::string& name);
    size_t formatPrefix(char* out, size_t capacity) const;

    std::shared_ptr<JournalFile> m_file;
    std::string m_tag;
    std::string m_fileName;
    std::atomic<int> m_logLevel;
    std::atomic<int> m_debugLevel;
    std::atomic<int> m_flushLevel {JLL_ALERT};
    std::shared_ptr<JournalThreader> m_threader;
    std::atomic<bool> m_useDateTime {false};
    static std::atomic<AbstractAdditionalLogger*> m_additionalLogger;
};

/** Builds a message from streamed pieces: text, numbers, Qt strings, booleans. */
class VXCOMMON_EXPORT JournalMessage
{
public:
    JournalMessage& operator<<(const std::string& s)
    {
        m_text += s;
        return *this;
    }
    JournalMessage& operator<<(const char* s)
    {
        m_text += s ? s : "(null)";
        return *this;
    }
    JournalMessage& operator<<(char c)
    {
        m_text += c;
        return *this;
    }
    JournalMessage& operator<<(const VxString& s)
    {
        m_text += s.toStdString();
        return *this;
    }
    JournalMessage& operator<<(const QString& s)
    {
        m_text += s.toStdString();
        return *this;
    }
    JournalMessage& operator<<(const QByteArray& s)
    {
        m_text.append(s.constData(), static_cast<size_t>(s.size()));
        return *this;
    }
    JournalMessage& operator<<(bool b)
    {
        m_text += b ? "true" : "false";
        return *this;
    }
    JournalMessage& operator<<(const void* p);
    template <typename T, typename std::enable_if<std::is_arithmetic<T>::value || std::is_enum<T>::value, int>::type = 0> JournalMessage& operator<<(T value)
    {
        if constexpr (std::is_enum<T>::value)
            m_text += std::to_string(static_cast<long long>(value));
        else
            m_text += std::to_string(value);
        return *this;
    }
    const std::string& text() const { return m_text; }

private:
    std::string m_text;
};

/**
 * JLOG(level, a << b << c): journals "<function> a b c" at @p level to gJournal (and the
 * additional logger). The message is only composed when someone will take it.
 * JLOG_TO(journal, function, level, msg) is the general form: a subsystem's own journal,
 * and a function name given explicitly where __func__ would say too little (templates,
 * lambdas, lines forwarded from another program).
 */
#define JLOG_TO(journal, function, level, msg)                                                                                                                 \
    do {                                                                                                                                                       \
        Journaller* jlogJournal_ = (journal);                                                                                                                  \
        if (Journaller::wantsLevel(jlogJournal_, level)) {                                                                                                     \
            JournalMessage jlogMessage_;                                                                                                                       \
            jlogMessage_ << function << ' ' << msg;                                                                                                            \
            Journaller::logTo(jlogJournal_, level, __LINE__, function, jlogMessage_.text());                                                                   \
        }                                                                                                                                                      \
    } while (0)
#define JLOG(level, msg) JLOG_TO(gJournal, __func__, level, msg)
#define JTRACE(msg) JLOG(JLL_TRACE, msg)
#define JDEBUG(msg) JLOG(JLL_DEBUG, msg)
#define JALERT(msg) JLOG(JLL_ALERT, msg)
#define JERROR(msg) JLOG(JLL_ERROR, msg)
#define JFATAL(msg) JLOG(JLL_FATAL, msg)
#define JWRITE(msg) JLOG(JLL_WRITE, msg)
