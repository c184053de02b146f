// SPDX-License-Identifier: MIT
#pragma once

#include <functional>

/**
 * Runs the calling thread's events until @p done() or @p timeoutMs ran out; whether done()
 * became true. QTest::qWaitFor for programs that do not link QtTest.
 */
bool runEventsUntil(const std::function<bool()>& done, int timeoutMs);
