// SPDX-License-Identifier: MIT
// A host that uses the settings tree of the support library only.
#include <gui_helpers/settingsfile.h>

int main()
{
    veltrax::SettingsFile tree;
    tree.setSetting("window.width", veltrax::Variant(640));
    VxByteArray bytes;
    tree.serialize(bytes);
    veltrax::SettingsFile copy;
    if (copy.deserialize(bytes) < 0)
        return 1;
    return copy.setting("window.width").toInt32() == 640 ? 0 : 2;
}
