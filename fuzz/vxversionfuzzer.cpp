// SPDX-License-Identifier: MIT
// Version texts come from the update server's release lists. Any text must parse without
// fault, and whatever parses must print back to the same version.
#include "fuzzcommon_p.h"

#include "vxtypes.h"

#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    const VxVersion version = VxVersion::fromString(VxString(text));
    const VxVersion again = VxVersion::fromString(version.toString());
    if (!(again == version))
        abort();
    return 0;
}
