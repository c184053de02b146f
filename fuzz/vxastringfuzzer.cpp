// SPDX-License-Identifier: MIT
// Settings text files are edited by hand: any text must be read without fault, and the
// tree it gives must write out and read back without fault.
#include "fuzzcommon_p.h"

#include "settingsfile.h"

#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    veltrax::SettingsFile tree;
    try {
        tree.readVxaString(text);
        tree.readVxaString(text, "a", "imported.");
    } catch (const VxException&) {
        return 0; // a name nested deeper than the tree allows
    }
    std::string written;
    tree.writeVxaString(std::string(), written, "fuzz");
    veltrax::SettingsFile again;
    again.readVxaString(written);
    std::string rewritten;
    again.writeVxaString(std::string(), rewritten, "-");
    return 0;
}
