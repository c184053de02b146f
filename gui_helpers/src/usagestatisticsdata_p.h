// SPDX-License-Identifier: MIT
//
// What a usage sending carries. Not installed: shared by the sending and its preview.
#pragma once

#include "settingsfile.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

namespace usagestatistics
{
/**
 * The logs a sending carries: every file directly in the directory of @p logFilePath whose
 * full path contains @p pattern (case-sensitive), except @p logFilePath's own file, which is
 * still being written. Full paths, in the directory's own order.
 */
QStringList finishedLogPaths(const QString& logFilePath, const QString& pattern);

/**
 * The finished logs of finishedLogPaths(), one binary setting per file, keyed by the
 * file's base name, holding the file's text as UTF-8. Unreadable files are left out.
 */
veltrax::SettingsFile collectFinishedLogs(const QString& logFilePath, const QString& pattern);

/** The USAGE record of @p logs: "USAGE <length> " and the tree's bytes. */
QByteArray usageRecord(const veltrax::SettingsFile& logs);
} // namespace usagestatistics
