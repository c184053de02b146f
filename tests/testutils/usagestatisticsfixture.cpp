// SPDX-License-Identifier: MIT
#include "usagestatisticsfixture.h"
#include "testhelpers.h"

#include <QDir>
#include <QRegularExpression>
#include <QSettings>
#include <QStandardPaths>
#include <QTest>

QString usageValue(const QString& key)
{
    QSettings settings;
    settings.beginGroup(QStringLiteral("UsageStatistics"));
    return settings.contains(key) ? settings.value(key).toString() : QStringLiteral("<absent>");
}

void setUsageValue(const QString& key, const QVariant& value)
{
    QSettings settings;
    settings.beginGroup(QStringLiteral("UsageStatistics"));
    if (value.isValid())
        settings.setValue(key, value);
    else
        settings.remove(key);
}

QString usageLogDir()
{
    return QStandardPaths::writableLocation(QStandardPaths::DataLocation) + QStringLiteral("/UsageLogs/");
}

QStringList logFiles()
{
    return QDir(usageLogDir()).entryList(QDir::Files, QDir::Name);
}

QStringList eventsOf(const QString& path)
{
    const QByteArray bytes = readFile(path);
    const int start = bytes.indexOf("Events:\n");
    if (start < 0)
        return {QStringLiteral("<no events section>")};
    QStringList events;
    const QList<QByteArray> lines = bytes.mid(start + 8).split('\n');
    for (const QByteArray& line : lines) {
        if (!line.isEmpty())
            events << QString::fromUtf8(line.mid(line.indexOf(' ') + 1));
    }
    return events;
}

QString earlierRun(const QStringList& events, bool closed)
{
    QTest::qWait(2); // distinct millisecond stamps in the names
    TestUsage run;
    run.recreateLogFile();
    for (const QString& event : events)
        run.logUseEvent(event);
    if (closed)
        run.logUseEvent(run.closingEvent());
    return run.logFilePath().remove(QRegularExpression(QStringLiteral("_closed$")));
}
