// SPDX-License-Identifier: MIT
//
// Cuts one update-server reply off the front of a receive buffer.
#pragma once

#include "gui_helpers_export.h"

#include <QByteArray>
#include <QObject>

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>

namespace veltrax
{
class SettingsFile;
}

/**
 * Reads one reply ("<WORD> <length> <body>") at the front of a receive buffer and reports
 * what it found. It never removes bytes: the caller drops ParseResult::consumed bytes,
 * so a reply that is still arriving can simply be parsed again when more bytes come.
 * One parser serves one attempt; the buffer must outlive it and stay unchanged meanwhile.
 *
 * Malformed input is reported, never thrown: an exception from the tree reader makes the
 * reply Invalid.
 *
 * While the header cannot be read, the decision between waiting (HeaderIncomplete) and
 * giving up (Invalid) counts the bytes from where reading stopped, not from the start: a
 * word that matched moves the cursor, so "LIST2…" is reported Invalid once 24 bytes follow
 * the word.
 */
class GUI_HELPERS_EXPORT ServerResponseParser : public QObject
{
    Q_OBJECT
public:
    /** What one parse attempt found. Says Invalid until a parse proves otherwise. */
    class GUI_HELPERS_EXPORT ParseResult
    {
    public:
        enum Status : int32_t {
            Complete = 0, ///< a whole reply was read
            Invalid = 1, ///< the bytes are not a valid reply
            HeaderIncomplete = 2, ///< too few bytes to read the header or to call it wrong
            BodyIncomplete = 3, ///< header read, body still arriving
        };

        ParseResult();
        virtual ~ParseResult();
        /** Back to Invalid with no word, no message, total 0 and an empty tree (progress is kept). */
        void clear();

        int32_t status = Invalid;
        /** Bytes from the buffer start (or the parser's offset) that this reply used. */
        size_t consumed = 0;
        /** Body bytes present so far, or the declared length once complete. */
        size_t progress = 0;
        /** Declared body length. */
        size_t total = 0;
        /** The reply word ("USAGE" for an acknowledged usage record). */
        QByteArray command;
        /** Text of an ERROR reply, without its line feed. */
        QByteArray message;
        /** Tree of a tree-carrying reply; owned. */
        veltrax::SettingsFile* settings;

    private:
        Q_DISABLE_COPY(ParseResult)
    };

    /** The recognised reply words, byte-wise ordered, and the length of the longest. */
    struct KnownCommands {
        std::set<std::string> commands;
        size_t maxLength = 0;
    };

    /** Parses from the first byte of @p buffer. Detaches the buffer so its bytes stay put. */
    explicit ServerResponseParser(QByteArray& buffer, QObject* parent = nullptr);
    /**
     * Parses from byte @p offset of @p buffer, as if the bytes before it were gone; lets the
     * caller keep a read position instead of removing each reply from the buffer's front.
     */
    ServerResponseParser(QByteArray& buffer, int offset, QObject* parent = nullptr);

    /** Reads one reply into @p result (cleared first). */
    void parse(ParseResult& result);

    static const KnownCommands& knownCommands() { return m_knownCommands; }

    /** Longest word, two spaces and the ten digits of 2^31-1: fewer unread bytes than this may still become a header. */
    static size_t headerDecisionLength();

Q_SIGNALS:
    /** Emitted only once a reply is decided (complete or invalid), never while a body arrives. */
    void progressChanged(size_t progress, size_t total);

protected:
    /** Decimal digits at the cursor, read as a signed long (saturating). False without a digit. */
    bool readUInt(size_t& value);
    /** The first known word that the unread bytes start with. False, cursor unmoved, if none. */
    bool readCommand(QByteArray& command);
    /** Word, one space, length, one space. On failure the cursor stays where the failing step stopped. */
    bool readCommandHeader(QByteArray& command, size_t& length);
    /**
     * Text up to @p terminator; the cursor moves past the terminator. The end of the buffer
     * counts as a zero terminator (the cursor then stops at the end). False, cursor unmoved
     * and @p text empty, when the terminator is not found.
     */
    bool readMessage(char terminator, bool keepTerminator, QByteArray& text);
    /**
     * Reads a tree from exactly @p length bytes at the cursor (cleared first); moves on only
     * on success. A body that is not such a tree leaves @p tree empty, never half read.
     */
    bool readCommandData(size_t length, veltrax::SettingsFile& tree);

    size_t unread() const { return static_cast<size_t>(m_end - m_cursor); }
    size_t position() const { return static_cast<size_t>(m_cursor - m_start); }

private:
    static KnownCommands generateKnownCommands();
    static const KnownCommands m_knownCommands;

    QByteArray& m_buffer;
    const char* m_start = nullptr;
    const char* m_cursor = nullptr;
    const char* m_end = nullptr;
};
