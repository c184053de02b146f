// SPDX-License-Identifier: MIT
//
// What the usage-statistics tests share: a singleton as a host would write one, the
// "UsageStatistics" settings, and the logs in the usage-log directory.
#pragma once

#include "abstractusagestatisticssingleton.h"

#include <QString>
#include <QStringList>
#include <QVariant>

/** Logs named "TestApp_...", opened with "AppStarted" and closed with "AppClosed". */
class TestUsage : public AbstractUsageStatisticsSingleton
{
public:
    QString extra;
    QString logFilePrefix() override { return QStringLiteral("TestApp_"); }
    QString openingEvent() override { return QStringLiteral("AppStarted"); }
    QString closingEvent() override { return QStringLiteral("AppClosed"); }
    QString extraHeaderText() override { return extra; }
};

/** The text of @p key in the "UsageStatistics" group, or "<absent>". */
QString usageValue(const QString& key);
/** Stores @p value under @p key in the "UsageStatistics" group; an invalid value removes the key. */
void setUsageValue(const QString& key, const QVariant& value);
/** The usage-log directory of the running application, with a trailing slash. */
QString usageLogDir();
/** Names of the files in it. */
QStringList logFiles();
/** Event texts of the log at @p path, in order, without their time stamps. */
QStringList eventsOf(const QString& path);
/**
 * The log of an earlier run of the application: created, given @p events, and ended by
 * destruction, with the closing event first when @p closed. Returns its path.
 */
QString earlierRun(const QStringList& events, bool closed);
