// SPDX-License-Identifier: MIT
// The update server's reply stream, as the connection's receive buffer holds it. Any bytes
// must be cut into replies without fault, the cutting must always make progress, and a
// reply must not be judged invalid merely because it has not fully arrived yet.
#include "fuzzcommon_p.h"

#include "settingsfile.h"
#include "updateserverresponseparser.h"

#include <QByteArray>

using Result = ServerResponseParser::ParseResult;

namespace
{
void parseAt(QByteArray& buffer, int offset, Result& result)
{
    ServerResponseParser parser(buffer, offset);
    parser.parse(result);
}
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    QByteArray buffer(reinterpret_cast<const char*>(data), static_cast<int>(size));

    // The connection's loop: parse at the read position, move on by what was consumed,
    // stop when more bytes are needed, and drop a front that can never become a reply.
    int offset = 0;
    int rounds = 0;
    while (offset < buffer.size()) {
        FUZZ_CHECK(++rounds <= buffer.size() + 1);
        Result result;
        parseAt(buffer, offset, result);
        const size_t left = static_cast<size_t>(buffer.size() - offset);
        FUZZ_CHECK(result.status >= Result::Complete && result.status <= Result::BodyIncomplete);
        FUZZ_CHECK(result.consumed <= left);

        if (result.status == Result::Complete) {
            FUZZ_CHECK(result.consumed > 0);
            FUZZ_CHECK(!result.command.isEmpty());
            if (result.command != "USAGE") {
                // Every shorter piece of a complete reply is still arriving, never invalid:
                // a reply split across reads must not be thrown away. (An acknowledgement is
                // looked for in whatever has arrived, so it is left out.)
                const size_t whole = result.consumed;
                const size_t step = whole > 64 ? whole / 32 : 1;
                for (size_t cut = 0; cut < whole; cut += step) {
                    QByteArray piece = buffer.mid(offset, static_cast<int>(cut));
                    Result partial;
                    parseAt(piece, 0, partial);
                    FUZZ_CHECK(partial.status == Result::HeaderIncomplete || partial.status == Result::BodyIncomplete);
                }
            }
            offset += static_cast<int>(result.consumed);
        } else if (result.status == Result::Invalid) {
            offset = result.consumed == 0 ? buffer.size() : offset + static_cast<int>(result.consumed);
        } else {
            if (result.status == Result::BodyIncomplete) {
                FUZZ_CHECK(result.progress < result.total);
                FUZZ_CHECK(result.consumed + result.progress == left);
            }
            break;
        }
    }
    return 0;
}
