// SPDX-License-Identifier: MIT
#include "timeconversions.h"

namespace
{

// Seconds travel as unsigned 32-bit values both ways (dates from 1970 to early 2106), as
// QDateTime's time_t calls did; those calls are deprecated, so their rule is spelt out here.
QDateTime fromUnsigned32Seconds(VxTimeStamp ts)
{
    return QDateTime::fromSecsSinceEpoch(static_cast<qint64>(static_cast<uint>(ts / 1000)));
}

uint toUnsigned32Seconds(const QDateTime& dateTime)
{
    if (!dateTime.isValid())
        return uint(-1);
    const qint64 seconds = dateTime.toMSecsSinceEpoch() / 1000;
    return quint64(seconds) >= Q_UINT64_C(0xFFFFFFFF) ? uint(-1) : uint(seconds);
}

} // namespace

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
    return fromUnsigned32Seconds(ts).date();
}

QDateTime createQDateTime(VxTimeStamp ts)
{
    return fromUnsigned32Seconds(ts).addMSecs(ts % 1000);
}

VxTimeStamp createTimeStamp(const QTime& time)
{
    return static_cast<VxTimeStamp>(time.hour()) * 3600000 + time.minute() * 60000 + time.second() * 1000 + time.msec();
}

VxTimeStamp createTimeStamp(const QDateTime& dateTime)
{
    return static_cast<VxTimeStamp>(toUnsigned32Seconds(dateTime)) * 1000 + dateTime.time().msec();
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
