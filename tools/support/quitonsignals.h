// SPDX-License-Identifier: MIT
// Shared by the programs in this tree (not installed): SIGINT and SIGTERM end the event loop
// instead of the process, so children are stopped and files closed on the way out.
#pragma once

#include <QCoreApplication>
#include <QSocketNotifier>

#include <csignal>
#include <sys/socket.h>
#include <unistd.h>

namespace quitonsignals_detail
{
// The handler may only write(2); the read end wakes the event loop.
inline int signalPair[2] = {-1, -1};

inline void onSignal(int)
{
    const char byte = 1;
    [[maybe_unused]] ssize_t n = ::write(signalPair[0], &byte, 1);
}
}

/** Installs the handlers; false when the socket pair cannot be made (signals then kill as usual). */
inline bool quitOnSignals(QCoreApplication& app)
{
    using namespace quitonsignals_detail;
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, signalPair) != 0)
        return false;
    auto* notifier = new QSocketNotifier(signalPair[1], QSocketNotifier::Read, &app);
    QObject::connect(notifier, &QSocketNotifier::activated, &app, [] {
        char byte;
        [[maybe_unused]] ssize_t n = ::read(signalPair[1], &byte, 1);
        QCoreApplication::quit();
    });
    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    return true;
}
