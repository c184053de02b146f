// SPDX-License-Identifier: MIT
//
// Small helpers that many tests need: files in temporary directories, reproducible
// payloads, a loopback port nobody listens on, settings kept apart per test, and a logger
// that keeps what the library logs.
#pragma once

#include "journaller.h"

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <mutex>

/** The file's bytes, or "<unreadable>" so that a comparison fails visibly. */
QByteArray readFile(const QString& path);
/** Writes @p bytes to @p path (replacing it); false when that fails. */
bool writeFile(const QString& path, const QByteArray& bytes);
/** Writes @p bytes to @p name in @p dir; the file's path, or an empty path when that fails. */
QString makeFile(const QTemporaryDir& dir, const QString& name, const QByteArray& bytes);
/** @p size bytes that depend only on @p seed. */
QByteArray randomBytes(qint64 size, quint32 seed);
/** A port on 127.0.0.1 that was free a moment ago: connecting to it is refused. */
quint16 closedLoopbackPort();

/**
 * Keeps the running test function's settings and data apart from every other test's and
 * out of the user's home. The first call moves HOME (and QSettings' user scope) into a
 * temporary directory and turns on QStandardPaths' test mode; every call gives the test
 * function (and data row) an organisation name of its own and clears its settings. Call it
 * from init().
 */
void isolateSettings();
/** The temporary home set up by isolateSettings(). */
QString testHome();

/** Keeps what the library logs, from any thread, while it lives. */
class CapturingLogger : public AbstractAdditionalLogger
{
public:
    CapturingLogger();
    ~CapturingLogger() override;
    CapturingLogger(const CapturingLogger&) = delete;
    CapturingLogger& operator=(const CapturingLogger&) = delete;

    bool wantsLevel(JournalLogLevel) const override { return true; }
    void log(JournalLogLevel level, int line, const char* function, const std::string& message) override;

    /** The messages ("function text"), of one level only when @p level is not negative. */
    QStringList lines(int level = -1) const;
    bool contains(const QString& text) const;

private:
    mutable std::mutex m_mutex;
    QList<QPair<int, QString>> m_lines;
};
