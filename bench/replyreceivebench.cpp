// SPDX-License-Identifier: MIT
//
// The update-server connection's receive path (its reply assembler), fed bytes without a socket:
//  - 100 000 small replies arriving in one read, against the same replies arriving one
//    read each;
//  - one 64 MiB reply arriving in 16 KiB reads, against the same bytes in one read.
// Both ratios stay within 2x when the cost is linear in bytes (no re-scanning or
// re-copying of the buffer per reply or per read).
#include "benchcommon.h"
#include "settingsfile.h"
#include "updateserverreplyassembler_p.h"

#include <QCoreApplication>

#include <memory>

namespace
{

/** The assembler as the connection uses it: each reply's tree is taken, each decision counted. */
class FedComm
{
public:
    void feed(const QByteArray& bytes)
    {
        m_assembler.feed(bytes, [this](ServerResponseParser::ParseResult& result) {
            veltrax::SettingsFile* taken = result.settings;
            result.settings = m_tree.release();
            m_tree.reset(taken);
        });
    }
    size_t decided = 0;

private:
    ServerReplyAssembler m_assembler {[this](size_t, size_t) {
        ++decided;
    }};
    std::unique_ptr<veltrax::SettingsFile> m_tree = std::make_unique<veltrax::SettingsFile>();
};

QByteArray reply(const char* word, const veltrax::SettingsFile& tree)
{
    VxByteArray body;
    tree.serialize(body);
    QByteArray out(word);
    out += ' ';
    out += QByteArray::number(qulonglong(body.size()));
    out += ' ';
    out.append(body.data(), int(body.size()));
    return out;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const int repeats = 3;

    // Small replies: a release record as the list reply carries it.
    veltrax::SettingsFile small;
    small.setSetting("v2021_0_2.beta", veltrax::Variant(false));
    small.setSetting("v2021_0_2.info", veltrax::Variant("https://example.invalid/notes"));
    small.setSetting("v2021_0_2.size", veltrax::Variant(123456));
    const QByteArray one = reply("LIST", small);
    const size_t count = bench::scaled(100000);
    QByteArray many;
    many.reserve(int(one.size() * count));
    for (size_t i = 0; i < count; ++i)
        many += one;

    size_t decided = 0;
    const double together = bench::bestOf(repeats, [&] {
        FedComm comm;
        comm.feed(many);
        decided = comm.decided;
    });
    if (decided != count) {
        std::fprintf(stderr, "decided %zu of %zu replies\n", decided, count);
        return 1;
    }
    const double apart = bench::bestOf(repeats, [&] {
        FedComm comm;
        for (size_t i = 0; i < count; ++i)
            comm.feed(one);
        decided = comm.decided;
    });
    bench::row(std::to_string(count) + " small replies in one read", together * 1e3, "one read per reply", apart * 1e3, "ms", false, ">= 0.5");

    // One large reply: a 64 MiB binary object and a few settings.
    const size_t bigSize = bench::scaled(64u << 20);
    veltrax::SettingsFile big;
    std::string payload(bigSize, '\0');
    for (size_t i = 0; i < payload.size(); i += 4096)
        payload[i] = char(i >> 12);
    big.setSetting("v2021_0_2.installer", veltrax::Variant(veltrax::BinaryObject(payload.data(), uint32_t(payload.size()))));
    big.setSetting("v2021_0_2.name", veltrax::Variant("installer.run"));
    const QByteArray large = reply("GE2T", big);
    payload.clear();
    payload.shrink_to_fit();

    const int piece = 16 * 1024;
    const double inPieces = bench::bestOf(repeats, [&] {
        FedComm comm;
        for (int at = 0; at < large.size(); at += piece)
            comm.feed(QByteArray::fromRawData(large.constData() + at, std::min(piece, large.size() - at)));
        decided = comm.decided;
    });
    if (decided != 1) {
        std::fprintf(stderr, "large reply not decided once (%zu)\n", decided);
        return 1;
    }
    const double whole = bench::bestOf(repeats, [&] {
        FedComm comm;
        comm.feed(large);
    });
    bench::row(std::to_string(bigSize >> 20) + " MiB reply in 16 KiB reads", inPieces * 1e3, "the same bytes in one read", whole * 1e3, "ms", false, ">= 0.5");
    return 0;
}
