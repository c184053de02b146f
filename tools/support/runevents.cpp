// SPDX-License-Identifier: MIT
#include "runevents.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QThread>

bool runEventsUntil(const std::function<bool()>& done, int timeoutMs)
{
    const QDeadlineTimer deadline(timeoutMs);
    while (!done()) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, int(qMax<qint64>(1, deadline.remainingTime())));
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        if (done())
            return true;
        QThread::msleep(static_cast<unsigned long>(qBound<qint64>(0, deadline.remainingTime(), 10)));
    }
    return true;
}
