// SPDX-License-Identifier: MIT
// The byte form of a settings tree is what the update server's replies carry. Any bytes,
// read at any offset, must either give a tree or one of the documented failures; a tree
// that was read must write out and read back to the same settings.
#include "fuzzcommon_p.h"

#include "settingsfile.h"

#include <cstdlib>
#include <map>
#include <stdexcept>
#include <string>

namespace
{
// Full name -> value bytes; values compared as bytes so that NaNs compare equal.
std::map<std::string, std::string> contentOf(const veltrax::SettingsFile& tree, bool* hasLabelList)
{
    std::map<std::string, std::string> content;
    for (const auto& setting : tree.flattened()) {
        if (setting.second.type() == veltrax::Variant::LabelList)
            *hasLabelList = true;
        VxByteArray bytes;
        setting.second.serialize(bytes);
        content[setting.first] = bytes.toStdString();
    }
    return content;
}
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1)
        return 0;
    // The first byte is the offset into the rest; the rest is read in place, so a read
    // past its end is a heap overflow that AddressSanitizer reports.
    const int offset = data[0] % 16;
    const VxByteArray in = VxByteArray::view(data + 1, size - 1);
    veltrax::SettingsFile tree;
    tree.setSetting("stale.value", veltrax::Variant(1));
    int consumed = 0;
    try {
        consumed = tree.deserialize(in, offset);
    } catch (const VxException& e) {
        // Too little data for what the form announces, or more than the reader takes.
        FUZZ_CHECK(e.resultValue() == VXRV_INSUFFICIENTDATA || e.resultValue() == VXRV_DATAOVERFLOW);
        return 0;
    } catch (const std::out_of_range& e) {
        FUZZ_CHECK(std::string(e.what()) == "index out of range");
        return 0;
    }
    FUZZ_CHECK(consumed >= 5 && static_cast<size_t>(offset) + consumed <= in.size());
    FUZZ_CHECK(!tree.isModified());

    // Labels that hold white space or are empty do not survive a LabelList's byte form
    // (the reader splits at white space), so the round trip is checked without them.
    bool hasLabelList = false;
    const auto content = contentOf(tree, &hasLabelList);
    VxByteArray written;
    tree.serialize(written);
    if (hasLabelList)
        return 0;
    // More than 20 settings in fewer than 7 bytes each (short names, values without a
    // payload) make a form the reader refuses for its size: the writer has no such limit.
    const size_t count = tree.flattened().size();
    if (count > 20 && written.size() < 7 * uint64_t(count))
        return 0;
    veltrax::SettingsFile again;
    const int reread = again.deserialize(written, 0);
    // A value that is a tag alone (Empty, or an unknown tag) as the very last byte is not
    // read: a value needs two bytes. That reads one byte short and is the documented rule.
    if (static_cast<size_t>(reread) + 1 == written.size())
        return 0;
    FUZZ_CHECK(static_cast<size_t>(reread) == written.size());
    bool unused = false;
    FUZZ_CHECK(contentOf(again, &unused) == content);
    FUZZ_CHECK(again.isEncrypted() == tree.isEncrypted());
    return 0;
}
