// SPDX-License-Identifier: MIT
//
// The framing of what a client sends to the reference update server: request lines ended by
// a line feed, and usage records "USAGE <length> <bytes>". Bytes go in as they arrive, in
// pieces of any size; whole requests come out. Nothing a client declares is allocated
// ahead: a record's body is only ever as large as the bytes that arrived, and the limits
// below refuse a connection before its buffer can grow past them.
#pragma once

#include <QByteArray>

class RequestReader
{
public:
    /** Longest request line, line feed excluded. */
    static constexpr int kMaxLineLength = 4096;

    struct Request {
        enum Kind {
            /** More bytes are needed. */
            None,
            /** A request line, without its line feed. */
            Line,
            /** The body of a usage record. */
            UsageRecord,
            /** The client broke the framing; `bytes` says how. Nothing follows. */
            Refused,
        };
        Kind kind = None;
        QByteArray bytes;
    };

    /** @p maxRecordSize: the largest usage record body accepted. */
    explicit RequestReader(qint64 maxRecordSize);

    /** Takes more bytes; after a refusal they are dropped. */
    void append(const QByteArray& bytes);
    /** The next whole request, or None. Call until None. */
    Request next();

    bool refused() const { return m_refused; }
    /** Bytes held that belong to no whole request yet. */
    qint64 buffered() const { return m_buffer.size() - m_offset; }

private:
    Request refuse(const char* reason);

    qint64 m_maxRecordSize;
    QByteArray m_buffer;
    /** Start of the unread bytes; the front is cut off only when it outweighs the rest. */
    int m_offset = 0;
    /** Body length of the usage record being received, or -1 between requests. */
    qint64 m_recordLength = -1;
    bool m_refused = false;
};
