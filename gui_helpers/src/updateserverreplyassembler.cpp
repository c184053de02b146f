// SPDX-License-Identifier: MIT
#include "updateserverreplyassembler_p.h"

#include <utility>

ServerReplyAssembler::ServerReplyAssembler(ProgressHandler progress)
    : m_progress(std::move(progress))
{
}

ServerReplyAssembler::Outcome ServerReplyAssembler::feed(const QByteArray& bytes, const ReplyHandler& onReply)
{
    Outcome outcome;
    m_buffer.append(bytes);

    // A large body arrives in many reads: its header is not parsed again until it is all here.
    if (m_awaitedSize > 0 && m_buffer.size() < m_awaitedSize)
        return outcome;
    m_awaitedSize = 0;

    while (m_readOffset < m_buffer.size()) {
        ServerResponseParser parser(m_buffer, m_readOffset);
        if (m_progress)
            QObject::connect(&parser, &ServerResponseParser::progressChanged, m_progress);
        ServerResponseParser::ParseResult result;
        parser.parse(result);

        if (result.status == ServerResponseParser::ParseResult::Complete) {
            onReply(result);
            m_readOffset += static_cast<int>(result.consumed);
            outcome.replied = true;
        } else if (result.status == ServerResponseParser::ParseResult::Invalid) {
            onReply(result);
            if (result.consumed == 0) {
                // Nothing at the front can ever become a reply: drop what is there so the
                // loop ends; the next reply can only start with bytes still to come.
                outcome.discarded = m_buffer.size() - m_readOffset;
                m_readOffset = m_buffer.size();
            } else {
                m_readOffset += static_cast<int>(result.consumed);
            }
        } else {
            if (result.status == ServerResponseParser::ParseResult::BodyIncomplete) {
                if (result.total > maxReplySize()) {
                    // Never buffer what a QByteArray cannot hold: treat it as a broken stream.
                    outcome.oversized = result.total;
                    reset();
                    return outcome;
                }
                m_awaitedSize = static_cast<qint64>(m_readOffset) + static_cast<qint64>(result.consumed) + static_cast<qint64>(result.total);
            }
            break;
        }
    }
    compact();
    return outcome;
}

void ServerReplyAssembler::reset()
{
    m_buffer.clear();
    m_readOffset = 0;
    m_awaitedSize = 0;
}

void ServerReplyAssembler::compact()
{
    // Only when the consumed front outweighs what is left, so each byte is moved a bounded
    // number of times however many replies one read carries.
    if (m_readOffset >= m_buffer.size()) {
        if (m_awaitedSize > 0)
            m_awaitedSize -= m_readOffset;
        m_buffer.clear();
        m_readOffset = 0;
    } else if (m_readOffset > 0 && m_readOffset >= m_buffer.size() - m_readOffset) {
        if (m_awaitedSize > 0)
            m_awaitedSize -= m_readOffset;
        m_buffer.remove(0, m_readOffset);
        m_readOffset = 0;
    }
}
