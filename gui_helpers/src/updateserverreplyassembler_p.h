// SPDX-License-Identifier: MIT
//
// The receive side of the update-server connection without its socket. Not installed: the
// connection's own use (and its tests and benchmarks).
#pragma once

#include "updateserverresponseparser.h"

#include <QByteArray>

#include <cstddef>
#include <functional>

/**
 * Collects received bytes and cuts the replies off their front, in arrival order.
 *
 * A reply split over many reads is decided once, when its last byte is here; the header of
 * a large body is not parsed again for each read. Bytes that can never start a reply (24 or
 * more with no known word in front) are dropped, so the stream always makes progress. A
 * body declared longer than maxReplySize() is never buffered: everything held is dropped.
 */
class ServerReplyAssembler
{
public:
    /** What one feed() did besides handing out replies. */
    struct Outcome {
        /** At least one reply was Complete. */
        bool replied = false;
        /** Bytes dropped because no reply can start with them. */
        int discarded = 0;
        /** Declared length of a body over the limit; everything held was dropped. 0 otherwise. */
        size_t oversized = 0;
    };
    /** Called for each decided reply (Complete or Invalid); may take the result's tree. */
    using ReplyHandler = std::function<void(ServerResponseParser::ParseResult& result)>;
    /** The parser's progress report of each decided reply. */
    using ProgressHandler = std::function<void(size_t progress, size_t total)>;

    explicit ServerReplyAssembler(ProgressHandler progress = ProgressHandler());

    /** Appends @p bytes and hands every reply now complete (or invalid) to @p onReply. */
    Outcome feed(const QByteArray& bytes, const ReplyHandler& onReply);
    /** Forgets everything held: a half-read reply of a dropped connection never completes. */
    void reset();
    /** Bytes held that are not yet part of a decided reply. */
    int pending() const { return m_buffer.size() - m_readOffset; }

    /** Largest reply body accepted (1 GiB). */
    static constexpr size_t maxReplySize() { return size_t(1) << 30; }

private:
    void compact();

    QByteArray m_buffer;
    /** Start of the unparsed bytes (the front is dropped now and then, see compact()). */
    int m_readOffset = 0;
    /** Buffer size at which the body now arriving is complete; 0 when not known. */
    qint64 m_awaitedSize = 0;
    ProgressHandler m_progress;
};
