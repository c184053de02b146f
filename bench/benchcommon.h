// SPDX-License-Identifier: MIT
//
// Small helpers shared by the benchmark programs: best-of-N wall-clock timing, a size
// scale for quick runs, and one output row format that bench/run.sh turns into a table.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

namespace bench
{

/** Size divisor from the environment (BENCH_SCALE=10 runs a tenth of the work). */
inline double scale()
{
    const char* s = std::getenv("BENCH_SCALE");
    const double v = s ? std::atof(s) : 1.0;
    return v >= 1.0 ? v : 1.0;
}

inline size_t scaled(size_t n)
{
    return std::max<size_t>(1, static_cast<size_t>(n / scale()));
}

/** Best wall-clock seconds of @p repeats runs of @p fn; @p setup runs untimed before each. */
inline double bestOf(int repeats, const std::function<void()>& fn, const std::function<void()>& setup = {})
{
    double best = 1e300;
    for (int i = 0; i < repeats; ++i) {
        if (setup)
            setup();
        const auto start = std::chrono::steady_clock::now();
        fn();
        const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        best = std::min(best, s);
    }
    return best;
}

/**
 * One row of the table. @p higherIsBetter says how to read the ratio, which is always
 * printed as "ours relative to the peer" with values above 1 meaning we do better.
 */
inline void row(const std::string& figure,
    double ours,
    const std::string& peerName,
    double peer,
    const std::string& unit,
    bool higherIsBetter,
    const std::string& target = "")
{
    const double ratio = higherIsBetter ? (peer > 0 ? ours / peer : 0) : (ours > 0 ? peer / ours : 0);
    std::printf("ROW|%s|%.4g|%s|%.4g|%s|%.2f|%s\n", figure.c_str(), ours, peerName.c_str(), peer, unit.c_str(), ratio, target.c_str());
    std::fflush(stdout);
}

} // namespace bench
