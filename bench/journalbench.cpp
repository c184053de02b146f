// SPDX-License-Identifier: MIT
//
// Lines per second of the journal against spdlog's synchronous, multi-threaded file
// logger writing the same text with an equivalent pattern (seconds.millis, thread id,
// level, message).
#include "benchcommon.h"
#include "journaller.h"

#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include <QTemporaryDir>

#include <thread>
#include <vector>

namespace
{
void runThreads(int threads, size_t lines, const std::function<void(size_t)>& logLine)
{
    std::vector<std::thread> pool;
    const size_t perThread = lines / threads;
    for (int t = 0; t < threads; ++t)
        pool.emplace_back([&] {
            for (size_t i = 0; i < perThread; ++i)
                logLine(i);
        });
    for (auto& th : pool)
        th.join();
}

const std::string message = "receiveReply LIST reply of 1234 bytes parsed for product 00000001";
}

int main()
{
    QTemporaryDir dir;
    const size_t lines = bench::scaled(1000000);
    for (int threads : {1, 2}) {
        const std::string journalPath = dir.filePath(QStringLiteral("journal.log")).toStdString();
        const std::string spdPath = dir.filePath(QStringLiteral("spdlog.log")).toStdString();

        const double ours = bench::bestOf(3, [&] {
            Journaller j(journalPath, true, JLL_DEBUG);
            j.setDebugLevel(JLL_DISABLE, false);
            runThreads(threads, lines, [&](size_t) {
                j.log(JLL_DEBUG, message);
            });
            j.flush();
        });

        const double peer = bench::bestOf(3, [&] {
            auto logger = spdlog::basic_logger_mt("bench", spdPath, true);
            logger->set_pattern("%10E.%e <%t> [%l] %v");
            logger->set_level(spdlog::level::debug);
            runThreads(threads, lines, [&](size_t) {
                logger->debug(message);
            });
            logger->flush();
            spdlog::drop("bench");
        });

        bench::row("journal, " + std::to_string(lines) + " lines, " + std::to_string(threads) + " thread" + (threads > 1 ? "s" : ""),
            lines / ours,
            "spdlog basic_logger_mt",
            lines / peer,
            "lines/s",
            true,
            ">= 1.0");
    }
    return 0;
}
