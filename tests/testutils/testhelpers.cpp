// SPDX-License-Identifier: MIT
#include "testhelpers.h"

#include <QCoreApplication>
#include <QFile>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QSettings>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

#include <chrono>
#include <thread>

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<unreadable>");
}

bool writeFile(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

QString makeFile(const QTemporaryDir& dir, const QString& name, const QByteArray& bytes)
{
    const QString path = dir.filePath(name);
    return writeFile(path, bytes) ? path : QString();
}

QByteArray randomBytes(qint64 size, quint32 seed)
{
    QByteArray bytes(int(size), Qt::Uninitialized);
    QRandomGenerator generator(seed);
    for (char& c : bytes)
        c = char(generator.bounded(256));
    return bytes;
}

quint16 closedLoopbackPort()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost);
    return probe.serverPort();
}

namespace
{
QTemporaryDir& home()
{
    static QTemporaryDir dir;
    return dir;
}
} // namespace

QString testHome()
{
    return home().path();
}

void isolateSettings()
{
    static int calls = 0;
    if (calls++ == 0) {
        // QSettings fixes its paths on first use, so they are set here and not left to HOME.
        qputenv("HOME", QFile::encodeName(home().path()));
        QStandardPaths::setTestModeEnabled(true);
        QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, home().filePath(QStringLiteral("settings")));
    }
    QString name = QLatin1String(QTest::currentTestFunction());
    if (const char* tag = QTest::currentDataTag())
        name += QLatin1Char('-') + QString::fromLatin1(tag);
    // The count keeps names apart that differ only in characters a path cannot hold.
    name.replace(QRegularExpression(QStringLiteral("[^A-Za-z0-9_-]")), QStringLiteral("_"));
    QCoreApplication::setOrganizationName(name + QLatin1Char('-') + QString::number(calls));
    QSettings().clear();
}

CapturingLogger::CapturingLogger()
{
    Journaller::setAdditionalLogger(this);
}

CapturingLogger::~CapturingLogger()
{
    Journaller::setAdditionalLogger(nullptr);
    // A request thread may still be inside log() for a moment.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    std::lock_guard<std::mutex> guard(m_mutex);
}

void CapturingLogger::log(JournalLogLevel level, int, const char*, const std::string& message)
{
    std::lock_guard<std::mutex> guard(m_mutex);
    m_lines.append({int(level), QString::fromStdString(message)});
}

QStringList CapturingLogger::lines(int level) const
{
    std::lock_guard<std::mutex> guard(m_mutex);
    QStringList result;
    for (const auto& line : m_lines) {
        if (level < 0 || line.first == level)
            result.append(line.second);
    }
    return result;
}

bool CapturingLogger::contains(const QString& text) const
{
    return !lines().filter(text).isEmpty();
}
