// SPDX-License-Identifier: MIT
//
// What the update controller and the update window share; not part of the interface.
#pragma once

#include "vxtypes.h"

#include <QString>

namespace autoupdate_p
{
inline QString updateCheckGroup()
{
    return QStringLiteral("UpdateCheck");
}

inline QString acceptBetaKey()
{
    return QStringLiteral("AcceptBeta");
}

/** Orders by major, minor and revision only; build and extra text never count. */
inline int compareVersions(const VxVersion& a, const VxVersion& b)
{
    if (a.major() != b.major())
        return a.major() < b.major() ? -1 : 1;
    if (a.minor() != b.minor())
        return a.minor() < b.minor() ? -1 : 1;
    if (a.revision() != b.revision())
        return a.revision() < b.revision() ? -1 : 1;
    return 0;
}
} // namespace autoupdate_p
