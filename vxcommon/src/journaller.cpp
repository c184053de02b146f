// SPDX-License-Identifier: MIT
#include "journaller.h"

#include <cstdio>
#include <cstring>
#include <execinfo.h>
#include <sys/syscall.h>
#include <unistd.h>

Journaller* gJournal = nullptr;

const char* const gLogLevelString[6] = {"[TRACE] ", "[DEBUG] ", "[ALERT] ", "[ERROR] ", "[FATAL] ", "[WRITE] "};

const char* journalLevelText(int level)
{
    return level >= 0 && level < 6 ? gLogLevelString[level] : "[?????] ";
}

std::atomic<AbstractAdditionalLogger*> Journaller::m_additionalLogger {nullptr};

AbstractAdditionalLogger::~AbstractAdditionalLogger() = default;

JournalMessage& JournalMessage::operator<<(const void* p)
{
    char text[32];
    snprintf(text, sizeof text, "%p", p);
    m_text += text;
    return *this;
}

// ---- JournalFile ------------------------------------------------------------------------

JournalFile::JournalFile(const VxString& fileName, bool purge)
    : m_name(fileName)
{
    if (!purge)
        m_file = VxFile_openText(fileName);
    if (!m_file.isOpen())
        m_file = VxFile_createText(fileName);
}

void JournalFile::write(const char* data, size_t size)
{
    if (m_good && !m_file.write(data, size))
        m_good = false;
}

JournalFile& JournalFile::operator<<(const std::string& bytes)
{
    write(bytes.data(), bytes.size());
    return *this;
}

void JournalFile::flush()
{
    if (m_good && m_file.isOpen() && !m_file.flush())
        m_good = false;
}

// ---- JournalThreader --------------------------------------------------------------------

uint32_t JournalThreader::currentThreadId()
{
    static thread_local const uint32_t id = static_cast<uint32_t>(syscall(SYS_gettid));
    return id;
}

std::string JournalThreader::line(uint32_t threadId)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return entry(threadId).line;
}

JournalLogLevel JournalThreader::lineLevel(uint32_t threadId)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return entry(threadId).level;
}

void JournalThreader::setLineLevel(uint32_t threadId, JournalLogLevel level)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    entry(threadId).level = level;
}

static void writeOut(const std::string& line, JournalFile* file)
{
    if (file)
        file->write(line.data(), line.size());
    else
        fwrite(line.data(), 1, line.size(), stderr);
}

void JournalThreader::writeLine(uint32_t threadId, JournalFile* file)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    ThreadLine& tl = entry(threadId);
    writeOut(tl.line, file);
    tl.line.clear();
}

void JournalThreader::flushAll(JournalFile* file)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    for (auto& item : m_lines) {
        if (!item.second.line.empty()) {
            writeOut(item.second.line, file);
            item.second.line.clear();
        }
    }
    if (file)
        file->flush();
}

void JournalThreader::cleanup(uint32_t threadId)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lines.erase(threadId);
}

// ---- Journaller -------------------------------------------------------------------------

Journaller::Journaller(const VxString& fileName, bool purge, JournalLogLevel level)
    : m_logLevel(level)
    , m_debugLevel(level)
    , m_threader(std::make_shared<JournalThreader>())
{
    init(fileName, purge);
}

Journaller::~Journaller()
{
    flush();
    if (gJournal == this)
        gJournal = nullptr;
}

void Journaller::init(const VxString& fileName, bool purge)
{
    m_fileName = fileName.toStdString();
    if (!fileName.empty())
        m_file = std::make_shared<JournalFile>(fileName, purge);
}

// "%10ld.%03d <%08X> " without the cost of printf on every line.
size_t Journaller::formatPrefix(char* out, size_t capacity) const
{
    const VxTimeStamp now = VxTimeStamp_now();
    size_t n;
    if (m_useDateTime.load(std::memory_order_relaxed)) {
        const std::string text = VxTime_toLocalText(now);
        n = static_cast<size_t>(snprintf(out, capacity, "%s ", text.c_str()));
    } else {
        long seconds = static_cast<long>(now / 1000);
        int ms = static_cast<int>(now % 1000);
        if (ms < 0) {
            ms += 1000;
            --seconds;
        }
        char digits[24];
        int len = 0;
        unsigned long v = static_cast<unsigned long>(seconds < 0 ? -seconds : seconds);
        do {
            digits[len++] = static_cast<char>('0' + v % 10);
            v /= 10;
        } while (v);
        if (seconds < 0)
            digits[len++] = '-';
        n = 0;
        for (int pad = 10 - len; pad > 0; --pad)
            out[n++] = ' ';
        while (len)
            out[n++] = digits[--len];
        out[n++] = '.';
        out[n++] = static_cast<char>('0' + ms / 100);
        out[n++] = static_cast<char>('0' + ms / 10 % 10);
        out[n++] = static_cast<char>('0' + ms % 10);
        out[n++] = ' ';
    }
    static const char hexDigits[] = "0123456789ABCDEF";
    const uint32_t tid = JournalThreader::currentThreadId();
    if (n + 12 <= capacity) {
        out[n++] = '<';
        for (int shift = 28; shift >= 0; shift -= 4)
            out[n++] = hexDigits[(tid >> shift) & 0xF];
        out[n++] = '>';
        out[n++] = ' ';
    }
    return n;
}

void Journaller::flushLineLocked(JournalThreader::ThreadLine& tl)
{
    if (tl.line.empty())
        return;
    // At or above the log level for the file, strictly above the debug level for the echo.
    if (tl.level >= m_logLevel.load(std::memory_order_relaxed) && m_file)
        m_file->write(tl.line.data(), tl.line.size());
    if (tl.level > m_debugLevel.load(std::memory_order_relaxed))
        fwrite(tl.line.data(), 1, tl.line.size(), stderr);
    tl.line.clear();
}

void Journaller::appendPieceLocked(JournalThreader::ThreadLine& tl, const char* data, size_t size)
{
    if (size == 0) {
        flushLineLocked(tl);
        return;
    }
    tl.line.append(data, size);
    const char last = data[size - 1];
    if (last == '\n' || last == '\r')
        flushLineLocked(tl);
}

void Journaller::log(JournalLogLevel level, const std::string& text)
{
    if (!isLevelEnabled(level))
        return;
    char prefix[96];
    const size_t prefixLength = formatPrefix(prefix, sizeof prefix);
    const char* levelText = journalLevelText(level);

    // The usual line is one piece: nothing pending on this thread and a message that does
    // not end a line itself. It is assembled in a buffer of the thread's own, so the lock
    // only covers the tag and the write, which keeps concurrent writers from queueing.
    const bool onePiece = !text.empty() && text.back() != '\n' && text.back() != '\r';
    static thread_local std::string assembled;
    if (onePiece) {
        assembled.assign(prefix, prefixLength);
        assembled.append(levelText, 8);
        assembled.append(text);
        assembled.push_back('\n');
    }

    std::lock_guard<std::mutex> lock(m_threader->m_mutex);
    JournalThreader::ThreadLine& tl = m_threader->entry(JournalThreader::currentThreadId());
    tl.level = level;
    if (onePiece && tl.line.empty()) {
        if (!m_tag.empty())
            assembled.insert(prefixLength, m_tag);
        tl.line.swap(assembled);
        flushLineLocked(tl);
        tl.line.swap(assembled);
    } else {
        appendPieceLocked(tl, prefix, prefixLength);
        if (!m_tag.empty())
            appendPieceLocked(tl, m_tag.data(), m_tag.size());
        appendPieceLocked(tl, levelText, 8);
        appendPieceLocked(tl, text.data(), text.size());
        appendPieceLocked(tl, "\n", 1);
    }
    if (level >= m_flushLevel.load(std::memory_order_relaxed) && m_file) {
        flushLineLocked(tl);
        m_file->flush();
    }
}

void Journaller::writeMessage(const std::string& piece)
{
    std::lock_guard<std::mutex> lock(m_threader->m_mutex);
    appendPieceLocked(m_threader->entry(JournalThreader::currentThreadId()), piece.data(), piece.size());
}

void Journaller::flushLine()
{
    std::lock_guard<std::mutex> lock(m_threader->m_mutex);
    flushLineLocked(m_threader->entry(JournalThreader::currentThreadId()));
}

void Journaller::flush()
{
    std::lock_guard<std::mutex> lock(m_threader->m_mutex);
    for (auto& item : m_threader->m_lines)
        flushLineLocked(item.second);
    if (m_file)
        m_file->flush();
}

void Journaller::cleanupThread()
{
    m_threader->cleanup(JournalThreader::currentThreadId());
}

void Journaller::setLogLevel(JournalLogLevel level, bool writeNotice)
{
    m_logLevel = level;
    if (writeNotice)
        log(JLL_WRITE, std::string("setLogLevel Log level set to ") + journalLevelText(level));
}

void Journaller::setDebugLevel(JournalLogLevel level, bool writeNotice)
{
    m_debugLevel = level;
    if (writeNotice)
        log(JLL_WRITE, std::string("setDebugLevel Debugger output log level set to ") + journalLevelText(level));
}

void Journaller::setFlushLevel(JournalLogLevel level, bool writeNotice)
{
    m_flushLevel = level;
    if (writeNotice)
        log(JLL_WRITE, std::string("setFlushLevel Flush level switched to ") + journalLevelText(level));
}

void Journaller::switchFile(std::shared_ptr<JournalFile> file, const std::string& name)
{
    // Lines begun for the old file end there, not half in one file and half in the other.
    std::lock_guard<std::mutex> lock(m_threader->m_mutex);
    for (auto& item : m_threader->m_lines)
        flushLineLocked(item.second);
    if (m_file) {
        m_file->flush();
        m_file->removeRef();
    }
    m_file = std::move(file);
    m_fileName = name;
}

bool Journaller::moveLogFile(const VxString& newName, bool purge, bool writeHeader)
{
    log(JLL_WRITE, "moveLogFile Switching to file " + newName.toStdString());
    auto fresh = std::make_shared<JournalFile>(newName, purge);
    if (!fresh->isOpen()) {
        log(JLL_WRITE, "moveLogFile Could not switch to new log location " + newName.toStdString());
        return false;
    }
    switchFile(std::move(fresh), newName.toStdString());
    if (writeHeader)
        writeFileHeader();
    return true;
}

bool Journaller::moveLogs(Journaller* other, bool writeHeader)
{
    if (!other || other == this)
        return false;
    std::shared_ptr<JournalFile> target;
    std::string targetName;
    {
        std::lock_guard<std::mutex> lock(other->m_threader->m_mutex);
        target = other->m_file;
        targetName = other->m_fileName;
    }
    log(JLL_WRITE, "moveLogs Switching to file " + targetName);
    if (!target || !target->isOpen()) {
        log(JLL_WRITE, "moveLogs Could not switch to new log location " + targetName);
        return false;
    }
    target->addRef();
    switchFile(std::move(target), targetName);
    if (writeHeader)
        writeFileHeader();
    return true;
}

void Journaller::writeFileHeader()
{
    log(JLL_WRITE, "writeFileHeader Journaller logging to " + filename() + " on " + VxTime_toLocalText(VxTimeStamp_now()));
}

void Journaller::writeCallstack(JournalLogLevel level)
{
    void* frames[64];
    const int count = backtrace(frames, 64);
    char** symbols = backtrace_symbols(frames, count);
    log(level, "************ Dump Begin ************");
    // Frame 0 is this function; start with its caller.
    for (int i = 1; i < count; ++i)
        log(level, symbols ? symbols[i] : "?");
    log(level, "************* Dump End *************");
    free(symbols);
}

void Journaller::setTag(const std::string& tag)
{
    std::lock_guard<std::mutex> lock(m_threader->m_mutex);
    m_tag = tag;
}

std::string Journaller::tag() const
{
    std::lock_guard<std::mutex> lock(m_threader->m_mutex);
    return m_tag;
}

std::string Journaller::tagFromFilename(const std::string& fileName)
{
    size_t start = fileName.find_last_of("/\\");
    start = start == std::string::npos ? 0 : start + 1;
    size_t end = fileName.find('.', start);
    if (end == std::string::npos)
        end = fileName.size();
    if (end == start)
        return std::string();
    return fileName.substr(start, end - start) + ' ';
}

std::string Journaller::filename() const
{
    std::lock_guard<std::mutex> lock(m_threader->m_mutex);
    return m_fileName;
}

void Journaller::setAdditionalLogger(AbstractAdditionalLogger* logger)
{
    m_additionalLogger = logger;
}

bool Journaller::wantsLevel(Journaller* journal, JournalLogLevel level)
{
    if (journal && journal->isLevelEnabled(level))
        return true;
    AbstractAdditionalLogger* extra = m_additionalLogger.load();
    return extra && extra->wantsLevel(level);
}

void Journaller::logTo(Journaller* journal, JournalLogLevel level, int line, const char* function, const std::string& message)
{
    if (journal)
        journal->log(level, message);
    AbstractAdditionalLogger* extra = m_additionalLogger.load();
    if (extra && extra->wantsLevel(level))
        extra->log(level, line, function, message);
}
