// SPDX-License-Identifier: MIT
// Reply streams come from the network. The reader cuts them as the connection does: parse
// at a read position, move on by what a reply used, drop the rest when nothing can be used.
// Any bytes must be cut without fault, every step must stay inside the buffer, and the
// walk must end.
#include "fuzzcommon_p.h"

#include "settingsfile.h"
#include "updateserverresponseparser.h"

#include <QByteArray>

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    QByteArray buffer(reinterpret_cast<const char*>(data), static_cast<int>(size));
    int offset = 0;
    while (offset < buffer.size()) {
        ServerResponseParser parser(buffer, offset);
        ServerResponseParser::ParseResult result;
        parser.parse(result);
        const size_t remaining = static_cast<size_t>(buffer.size() - offset);
        if (result.consumed > remaining || result.status < 0 || result.status > 3)
            abort();
        if (result.status == ServerResponseParser::ParseResult::Complete) {
            if (result.consumed == 0)
                abort();
            offset += static_cast<int>(result.consumed);
        } else if (result.status == ServerResponseParser::ParseResult::Invalid) {
            offset = result.consumed == 0 ? buffer.size() : offset + static_cast<int>(result.consumed);
        } else {
            if (result.status == ServerResponseParser::ParseResult::BodyIncomplete && result.progress >= result.total)
                abort();
            break;
        }
    }
    return 0;
}
