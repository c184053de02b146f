// SPDX-License-Identifier: MIT
// What clients send the reference update server, cut into requests by its reader. The
// first byte sets the size of the pieces the rest arrives in: however the bytes are split,
// the same requests must come out, every one within the limits, nothing after a refusal,
// and the reader must never hold more than one unfinished request.
#include "fuzzcommon_p.h"

#include "requestreader.h"

#include <QByteArray>

#include <utility>
#include <vector>

namespace
{

constexpr qint64 kMaxRecord = 4096;
using Requests = std::vector<std::pair<int, QByteArray>>;

Requests readInPieces(const QByteArray& input, int pieceSize)
{
    RequestReader reader(kMaxRecord);
    Requests requests;
    for (int offset = 0; offset < input.size() && !reader.refused(); offset += pieceSize) {
        reader.append(input.mid(offset, pieceSize));
        for (RequestReader::Request r = reader.next(); r.kind != RequestReader::Request::None; r = reader.next()) {
            FUZZ_CHECK(requests.empty() || requests.back().first != RequestReader::Request::Refused);
            if (r.kind == RequestReader::Request::Line)
                FUZZ_CHECK(!r.bytes.contains('\n') && r.bytes.size() <= RequestReader::kMaxLineLength);
            if (r.kind == RequestReader::Request::UsageRecord)
                FUZZ_CHECK(r.bytes.size() <= kMaxRecord);
            requests.emplace_back(r.kind, r.bytes);
        }
        FUZZ_CHECK(reader.buffered() <= qMax<qint64>(kMaxRecord, RequestReader::kMaxLineLength));
        FUZZ_CHECK(!reader.refused() || reader.buffered() == 0);
    }
    return requests;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    const int pieceSize = data[0] + 1;
    const QByteArray input(reinterpret_cast<const char*>(data + 1), static_cast<int>(size - 1));
    const Requests whole = readInPieces(input, qMax(1, input.size()));
    FUZZ_CHECK(readInPieces(input, pieceSize) == whole);

    // Each request took its bytes and at least its terminator or header from the input.
    qint64 used = 0;
    for (const auto& request : whole) {
        if (request.first != RequestReader::Request::Refused)
            used += request.second.size() + 1;
    }
    FUZZ_CHECK(used <= input.size());
    return 0;
}
