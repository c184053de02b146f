// SPDX-License-Identifier: MIT
//
// What the update controller and the update window share; not part of the interface.
#pragma once

#include "gui_helpers_export.h"
#include "vxtypes.h"

#include <QDateTime>
#include <QString>

class AutoUpdate;

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

inline QString lastCheckKey()
{
    return QStringLiteral("LastCheck");
}

inline QString skippedVersionKey()
{
    return QStringLiteral("SkippedVersion");
}

/**
 * The clock that automatic checks read; null restores the system clock. Lets tests move
 * time by days without waiting.
 */
GUI_HELPERS_EXPORT void setClock(AutoUpdate& autoUpdate, QDateTime (*clock)());
/** Makes the decision that the check timer makes when it fires, now. */
GUI_HELPERS_EXPORT void decideAutomaticCheck(AutoUpdate& autoUpdate);
/** The check timer's interval in milliseconds; -1 when it is not running. */
GUI_HELPERS_EXPORT int msecsToNextDecision(const AutoUpdate& autoUpdate);

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
