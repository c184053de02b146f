// SPDX-License-Identifier: MIT
#include "demohost.h"

#include "journaller.h"
#include "timeconversions.h"

#include <QDate>
#include <QSettings>

namespace
{
const QString DemoGroup = QStringLiteral("Demo");
const QString IntervalKey = QStringLiteral("UpdateCheckInterval");
} // namespace

QString DemoHost::productKey()
{
    return QStringLiteral("GuiHelpersDemo");
}

VxVersion DemoHost::runningVersion()
{
    return VxVersion(2021, 1, 0, 4711);
}

DemoHost::DemoHost(const UpdateServerOptions& options, QObject* parent)
    : QObject(parent)
    , m_options(options)
{
}

VxVersion DemoHost::currentVersion() const
{
    return runningVersion();
}

QString DemoHost::productName() const
{
    return productKey();
}

int DemoHost::updateCheckInterval() const
{
    QSettings settings;
    settings.beginGroup(DemoGroup);
    return qBound(0, settings.value(IntervalKey, 7).toInt(), 31);
}

UpdateServerOptions DemoHost::updateServerOptions() const
{
    return m_options;
}

int64_t DemoHost::licenseDateLimit() const
{
    return createTimeStamp(QDateTime(QDate(2021, 12, 31), QTime(23, 59, 59), Qt::UTC));
}

Journaller* DemoHost::journaller() const
{
    return gJournal;
}

bool DemoHost::allowBetaVersions() const
{
    return true;
}

void DemoHost::setUpdateCheckInterval(int days)
{
    QSettings settings;
    settings.beginGroup(DemoGroup);
    settings.setValue(IntervalKey, days);
    JDEBUG("automatic update check interval set to " << days << " days");
}

void DemoHost::setAcceptBeta(bool accept)
{
    QSettings settings;
    settings.beginGroup(QStringLiteral("UpdateCheck"));
    settings.setValue(QStringLiteral("AcceptBeta"), accept);
    JDEBUG("beta releases " << (accept ? "accepted" : "not accepted"));
}
