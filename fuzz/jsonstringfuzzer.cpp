// SPDX-License-Identifier: MIT
// JSON text from files and peers: any text must be read without fault or refused, and a
// tree that was read must write out as JSON without fault.
#include "fuzzcommon_p.h"

#include "settingsfile.h"

#include <cstdlib>
#include <stdexcept>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    veltrax::SettingsFile tree;
    tree.setSetting("kept", veltrax::Variant(1));
    if (!tree.readJsonString(text)) {
        // Refused text leaves the tree as it was.
        if (tree.size() != 1 || !tree.hasSetting("kept"))
            abort();
        return 0;
    }
    // JSON null reads as the text "null", so a tree read from JSON holds no Empty value,
    // the one kind without a JSON text.
    std::string written;
    bool writable = true;
    try {
        tree.writeJsonString(written);
    } catch (const std::logic_error&) {
        writable = false;
    }
    FUZZ_CHECK(writable);
    veltrax::SettingsFile again;
    again.readJsonString(written);
    return 0;
}
