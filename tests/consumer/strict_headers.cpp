// SPDX-License-Identifier: MIT
// Every public header, in a host as strict as the library itself: no implicit 8-bit text
// conversions, no Qt keywords, nothing deprecated (the definitions are in CMakeLists.txt).
#include <gui_helpers/gui_helpers.h>
