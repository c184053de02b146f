// SPDX-License-Identifier: MIT
#include "timeconversions.h"

QTime createQTime(VxTimeStamp ts)
{
    QTime time;
    time.setHMS(static_cast<int>((ts / 3600000) % 24),
        static_cast<int>((ts / 60000) % 60),
        static_cast<int>((ts / 1000) % 60),
        static_cast<int>(ts - (ts / 1000) * 1000));
    return time;
}

QDate createQDate(VxTimeStamp ts)
{
    return QDateTime::fromTime_t(static_cast<uint>(ts / 1000)).date();
}

QDateTime createQDateTime(VxTimeStamp ts)
{
    return QDateTime::fromTime_t(static_cast<uint>(ts / 1000)).addMSecs(ts % 1000);
}

VxTimeStamp createTimeStamp(const QTime& time)
{
    return static_cast<VxTimeStamp>(time.hour()) * 3600000 + time.minute() * 60000 + time.second() * 1000 + time.msec();
}

VxTimeStamp createTimeStamp(const QDateTime& dateTime)
{
    return static_cast<VxTimeStamp>(dateTime.toTime_t()) * 1000 + dateTime.time().msec();
}

VxTimeStamp createTimeStamp(const QDate& date)
{
    return createTimeStamp(date.startOfDay());
}

QTime xqTimeNow()
{
    return createQTime(VxTimeStamp_now());
}

QDate xqDateNow()
{
    return createQDate(VxTimeStamp_now());
}

QDateTime xqDateTimeNow()
{
    return createQDateTime(VxTimeStamp_now());
}

QString xqLogTime()
{
    return xqTimeNow().toString(QStringLiteral("hh:mm:ss.zzz"));
}
