// SPDX-License-Identifier: MIT
#include "requestreader.h"

#include "updateserverprotocol.h"

#include <cstring>

namespace
{
/** Digits of a record length: enough for any length a QByteArray can hold, and a few more. */
constexpr int kMaxLengthDigits = 12;
}

RequestReader::RequestReader(qint64 maxRecordSize)
    : m_maxRecordSize(maxRecordSize)
{
}

void RequestReader::append(const QByteArray& bytes)
{
    if (m_refused)
        return;
    if (m_offset > 0 && m_offset >= m_buffer.size() - m_offset) {
        m_buffer.remove(0, m_offset);
        m_offset = 0;
    }
    m_buffer += bytes;
}

RequestReader::Request RequestReader::refuse(const char* reason)
{
    m_refused = true;
    m_buffer.clear();
    m_offset = 0;
    m_recordLength = -1;
    return {Request::Refused, QByteArray(reason)};
}

RequestReader::Request RequestReader::next()
{
    if (m_refused)
        return {};
    const char* const data = m_buffer.constData() + m_offset;
    const int available = m_buffer.size() - m_offset;

    if (m_recordLength >= 0) {
        if (available < m_recordLength)
            return {};
        Request record {Request::UsageRecord, QByteArray(data, static_cast<int>(m_recordLength))};
        m_offset += static_cast<int>(m_recordLength);
        m_recordLength = -1;
        return record;
    }

    // A usage record is "USAGE <length> <bytes>", not a line.
    static const QByteArray usagePrefix = QByteArray(updateserver::USAGE) + ' ';
    if (available >= usagePrefix.size() && std::memcmp(data, usagePrefix.constData(), static_cast<size_t>(usagePrefix.size())) == 0) {
        qint64 length = 0;
        int i = usagePrefix.size();
        for (; i < available && data[i] >= '0' && data[i] <= '9' && i - usagePrefix.size() < kMaxLengthDigits; ++i)
            length = length * 10 + (data[i] - '0');
        const int digits = i - usagePrefix.size();
        // The byte after the digits decides, even after the most digits allowed: a space
        // makes a length (perhaps too large), anything else a bad one.
        if (i == available)
            return {};
        if (digits == 0 || data[i] != ' ')
            return refuse("Bad usage record length");
        if (length > m_maxRecordSize)
            return refuse("Usage record too large");
        m_offset += i + 1;
        m_recordLength = length;
        return next();
    }

    const void* const lineFeed = std::memchr(data, '\n', static_cast<size_t>(qMin(available, kMaxLineLength + 1)));
    if (!lineFeed)
        return available > kMaxLineLength ? refuse("Request line too long") : Request {};
    const int length = static_cast<int>(static_cast<const char*>(lineFeed) - data);
    Request line {Request::Line, QByteArray(data, length)};
    m_offset += length + 1;
    return line;
}
