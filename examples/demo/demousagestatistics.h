// SPDX-License-Identifier: MIT
//
// The demo's usage statistics: the four texts the library asks of every application.
#pragma once

#include "abstractusagestatisticssingleton.h"

/**
 * Usage statistics of the demo. A suite application derives one class like this, creates
 * its instance once at start-up and stores it in gAbstractUsageStatisticsSingleton; the
 * rest of the application logs through AbstractUsageStatisticsSingleton::instance().
 */
class DemoUsageStatistics : public AbstractUsageStatisticsSingleton
{
    Q_OBJECT
public:
    /** Creates the instance and stores it in gAbstractUsageStatisticsSingleton. */
    static DemoUsageStatistics* create();

    QString logFilePrefix() override;
    QString openingEvent() override;
    QString closingEvent() override;
    QString extraHeaderText() override;

    /** Logs @p event through the stored instance, if there is one. */
    static void log(const QString& event, bool once = false);

private:
    DemoUsageStatistics() = default;
};
