// SPDX-License-Identifier: MIT
#include "updateserverprotocol.h"

namespace updateserver
{

QString legacyDeviceString(const VxDeviceId& id, const QString& prefix, const QString& suffix)
{
    return prefix + QString::fromStdString(id.toString().toStdString()) + suffix;
}

QString modernDeviceString(const VxDeviceId& id, const QString& prefix, const QString& suffix)
{
    return prefix + QString::fromStdString(id.toDeviceTypeString(true).toStdString()) + suffix;
}

} // namespace updateserver
