// SPDX-License-Identifier: MIT
//
// Conversions between the suite's millisecond time stamps and Qt's time types.
//
// createQTime() is deliberately arithmetic on the time stamp, so it gives the UTC time of
// day, while createQDate() and createQDateTime() are local. xqTimeNow() and xqLogTime()
// therefore show UTC clock time, xqDateTimeNow() local time. Seconds pass through Qt's
// 32-bit unsigned time_t conversions, so dates before 1970 or after early 2106 do not
// convert.
#pragma once

#include "gui_helpers_export.h"
#include "vxtypes.h"

#include <QDate>
#include <QDateTime>
#include <QString>
#include <QTime>

/** Time of day (UTC) of @p ts; invalid when the fields are out of range (negative stamps). */
GUI_HELPERS_EXPORT QTime createQTime(VxTimeStamp ts);
/** Local date of @p ts. */
GUI_HELPERS_EXPORT QDate createQDate(VxTimeStamp ts);
/** Local date and time of @p ts, with milliseconds. */
GUI_HELPERS_EXPORT QDateTime createQDateTime(VxTimeStamp ts);
/** Milliseconds since midnight. */
GUI_HELPERS_EXPORT VxTimeStamp createTimeStamp(const QTime& time);
/** Milliseconds since the epoch. */
GUI_HELPERS_EXPORT VxTimeStamp createTimeStamp(const QDateTime& dateTime);
/** Local midnight at the start of @p date. */
GUI_HELPERS_EXPORT VxTimeStamp createTimeStamp(const QDate& date);
GUI_HELPERS_EXPORT QTime xqTimeNow();
GUI_HELPERS_EXPORT QDate xqDateNow();
GUI_HELPERS_EXPORT QDateTime xqDateTimeNow();
/** xqTimeNow() as "hh:mm:ss.zzz". */
GUI_HELPERS_EXPORT QString xqLogTime();
