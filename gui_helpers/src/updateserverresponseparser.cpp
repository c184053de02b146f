// SPDX-License-Identifier: MIT
#include "updateserverresponseparser.h"

#include "settingsfile.h"
#include "updateserverprotocol.h"

#include <climits>
#include <cstring>
#include <string_view>

const ServerResponseParser::KnownCommands ServerResponseParser::m_knownCommands = ServerResponseParser::generateKnownCommands();

ServerResponseParser::KnownCommands ServerResponseParser::generateKnownCommands()
{
    KnownCommands known;
    for (const char* word : {updateserver::LIST2,
             updateserver::LIST,
             updateserver::GET2,
             updateserver::PRODUCTKEY,
             updateserver::ERR,
             updateserver::CUSTOMERINFO,
             updateserver::ACK}) {
        known.commands.insert(word);
        known.maxLength = std::max(known.maxLength, std::strlen(word));
    }
    return known;
}

size_t ServerResponseParser::headerDecisionLength()
{
    return m_knownCommands.maxLength + 2 + 10; // 10 = digits of 2147483647
}

ServerResponseParser::ParseResult::ParseResult()
    : settings(new veltrax::SettingsFile)
{
    clear();
}

ServerResponseParser::ParseResult::~ParseResult()
{
    delete settings;
}

void ServerResponseParser::ParseResult::clear()
{
    status = Invalid;
    total = 0;
    command.clear();
    message.clear();
    settings->clear("");
}

ServerResponseParser::ServerResponseParser(QByteArray& buffer, QObject* parent)
    : ServerResponseParser(buffer, 0, parent)
{
}

ServerResponseParser::ServerResponseParser(QByteArray& buffer, int offset, QObject* parent)
    : QObject(parent)
    , m_buffer(buffer)
{
    m_buffer.detach();
    const int size = m_buffer.size();
    offset = qBound(0, offset, size);
    m_start = m_buffer.constData() + offset;
    m_cursor = m_start;
    m_end = m_buffer.constData() + size;
}

bool ServerResponseParser::readUInt(size_t& value)
{
    const char* p = m_cursor;
    unsigned long long v = 0;
    bool saturated = false;
    while (p < m_end && *p >= '0' && *p <= '9') {
        if (!saturated) {
            v = v * 10 + static_cast<unsigned>(*p - '0');
            if (v > static_cast<unsigned long long>(LONG_MAX))
                saturated = true;
        }
        ++p;
    }
    if (p == m_cursor)
        return false;
    // strtol semantics: an out-of-range number reads as LONG_MAX.
    value = saturated ? static_cast<size_t>(LONG_MAX) : static_cast<size_t>(v);
    m_cursor = p;
    return true;
}

bool ServerResponseParser::readCommand(QByteArray& command)
{
    command.clear();
    const size_t available = unread();
    for (const std::string& word : m_knownCommands.commands) {
        if (available >= word.size() && std::memcmp(m_cursor, word.data(), word.size()) == 0) {
            command = QByteArray(word.data(), static_cast<int>(word.size()));
            m_cursor += word.size();
            return true;
        }
    }
    return false;
}

bool ServerResponseParser::readCommandHeader(QByteArray& command, size_t& length)
{
    if (!readCommand(command))
        return false;
    if (m_cursor >= m_end || *m_cursor != ' ')
        return false;
    ++m_cursor;
    if (!readUInt(length))
        return false;
    if (m_cursor >= m_end || *m_cursor != ' ')
        return false;
    ++m_cursor;
    return true;
}

bool ServerResponseParser::readMessage(char terminator, bool keepTerminator, QByteArray& text)
{
    const char* found = static_cast<const char*>(std::memchr(m_cursor, terminator, unread()));
    if (!found && terminator == '\0')
        found = m_end; // the byte after the buffer is always a zero
    if (!found) {
        text.clear();
        return false;
    }
    const char* stop = (keepTerminator && found < m_end) ? found + 1 : found;
    text = QByteArray(m_cursor, static_cast<int>(stop - m_cursor));
    m_cursor = found < m_end ? found + 1 : m_end;
    return true;
}

bool ServerResponseParser::readCommandData(size_t length, veltrax::SettingsFile& tree)
{
    try {
        tree.clear("");
        if (length == 0 || length > unread() || length > static_cast<size_t>(INT_MAX))
            return false;
        const VxByteArray body = VxByteArray::view(m_cursor, length);
        const int used = tree.deserialize(body, 0);
        if (used < 0 || static_cast<size_t>(used) != length) {
            tree.clear("");
            return false;
        }
    } catch (...) {
        // Whatever the tree reader throws, the reply is simply not valid; records read
        // before the fault are no part of any reply.
        tree.clear("");
        return false;
    }
    m_cursor += length;
    return true;
}

void ServerResponseParser::parse(ParseResult& result)
{
    result.clear();

    QByteArray command;
    size_t length = 0;
    if (!readCommandHeader(command, length)) {
        result.status = unread() < headerDecisionLength() ? ParseResult::HeaderIncomplete : ParseResult::Invalid;
        result.consumed = position();
        return;
    }
    result.command = command;

    if (unread() < length) {
        result.progress = unread();
        result.total = length;
        result.status = ParseResult::BodyIncomplete;
        result.consumed = position();
        return;
    }

    bool ok = false;
    if (command == updateserver::ACK) {
        // Everything up to the first zero byte is searched, not only the declared body.
        const char* zero = static_cast<const char*>(std::memchr(m_cursor, '\0', unread()));
        const std::string_view rest(m_cursor, static_cast<size_t>((zero ? zero : m_end) - m_cursor));
        if (rest.find(updateserver::USAGE) != std::string_view::npos) {
            result.command = updateserver::USAGE;
            // The acknowledgement takes everything that has arrived with it.
            result.consumed = static_cast<size_t>(m_end - m_start);
            result.status = ParseResult::Complete;
            result.progress = 100;
            result.total = 100;
            Q_EMIT progressChanged(result.progress, result.total);
            return;
        }
    } else if (command == updateserver::ERR) {
        ok = readMessage('\n', false, result.message) && static_cast<size_t>(result.message.size()) + 1 == length;
    } else {
        ok = readCommandData(length, *result.settings);
    }

    if (ok) {
        result.status = ParseResult::Complete;
        result.progress = length;
        result.total = length;
    } else {
        result.status = ParseResult::Invalid;
    }
    result.consumed = position();
    Q_EMIT progressChanged(result.progress, result.total);
}
