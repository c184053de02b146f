// SPDX-License-Identifier: MIT
#include "demousagestatistics.h"

DemoUsageStatistics* DemoUsageStatistics::create()
{
    auto* statistics = new DemoUsageStatistics;
    gAbstractUsageStatisticsSingleton = statistics;
    return statistics;
}

QString DemoUsageStatistics::logFilePrefix()
{
    // Also selects this application's logs among those of other suite applications.
    return QStringLiteral("GuiHelpersDemo_");
}

QString DemoUsageStatistics::openingEvent()
{
    return QStringLiteral("Application started");
}

QString DemoUsageStatistics::closingEvent()
{
    return QStringLiteral("Application closed");
}

QString DemoUsageStatistics::extraHeaderText()
{
    return QStringLiteral("Host: libgui_helpers demo");
}

void DemoUsageStatistics::log(const QString& event, bool once)
{
    if (AbstractUsageStatisticsSingleton* statistics = instance())
        statistics->logUseEvent(event, once);
}
