// SPDX-License-Identifier: MIT
//
// Shared set-up of the fuzz targets: a QCoreApplication for code that needs one (string
// codecs, QStandardPaths), created once before the first input and kept to the end so
// LeakSanitizer sees it as reachable.
#pragma once

#include <QCoreApplication>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

/** A property the target checks: a violation is reported like a crash, with the condition. */
#define FUZZ_CHECK(condition)                                                                                                                                  \
    do {                                                                                                                                                       \
        if (!(condition)) {                                                                                                                                    \
            fprintf(stderr, "FUZZ_CHECK failed: %s (%s:%d)\n", #condition, __FILE__, __LINE__);                                                                \
            abort();                                                                                                                                           \
        }                                                                                                                                                      \
    } while (0)

namespace fuzzing
{

inline void ensureApplication()
{
    static int argc = 1;
    static char name[] = "gui_helpers_fuzzer";
    static char* argv[] = {name, nullptr};
    static QCoreApplication* app = QCoreApplication::instance() ? nullptr : new QCoreApplication(argc, argv);
    (void)app;
}

} // namespace fuzzing

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzzing::ensureApplication();
    return 0;
}
