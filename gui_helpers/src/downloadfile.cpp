// SPDX-License-Identifier: MIT
#include "downloadfile_p.h"

#include "filepathvalidator.h"
#include "minisign_p.h"

#include <QDir>
#include <QSaveFile>
#include <QStandardPaths>
#include <QTemporaryFile>

#include <cstdio>

namespace
{

// Room for a long name in 255 bytes of UTF-8 (three bytes per character at most).
constexpr int MaximumNameLength = 80;
constexpr int MaximumKeptExtension = 16;
constexpr qint64 CopyChunkSize = 256 * 1024;

QString shortened(const QString& name)
{
    if (name.size() <= MaximumNameLength)
        return name;
    const int dot = name.lastIndexOf(QLatin1Char('.'));
    const QString extension = dot > 0 && name.size() - dot <= MaximumKeptExtension ? name.mid(dot) : QString();
    QString stem = name.left(MaximumNameLength - extension.size());
    if (!stem.isEmpty() && stem.at(stem.size() - 1).isHighSurrogate())
        stem.chop(1);
    return stem + extension;
}

} // namespace

QString safeDownloadFileName(const QUrl& url)
{
    const QString path = url.path(QUrl::FullyDecoded);
    const int separator = qMax(path.lastIndexOf(QLatin1Char('/')), path.lastIndexOf(QLatin1Char('\\')));
    QString name = path.mid(separator + 1);
    for (QChar& c : name) {
        if (c.unicode() < 0x20 || c.unicode() == 0x7F)
            c = FilePathValidator::getDefaultFixCharacter();
    }
    name = shortened(name);
    // A repair fixes one fault per pass and there are five kinds of fault.
    // A name that repairs to nothing (" ", "..") gets a neutral one rather than a lone fix character.
    for (int pass = 0; pass < 8 && !name.isEmpty() && FilePathValidator::validateFileName(name) != 1; ++pass)
        FilePathValidator::validateFileName(name, name);
    if (name.isEmpty() || name == QLatin1String(".") || name == QLatin1String("..") || FilePathValidator::validateFileName(name) != 1)
        return QStringLiteral("download");
    return name;
}

QString downloadFilePath(const QString& folder, const QUrl& url)
{
    return folder + QLatin1Char('/') + safeDownloadFileName(url);
}

DownloadDigest::DownloadDigest(minisign::Verifier* verifier, bool sha256)
    : m_verifier(verifier)
    , m_hashSha256(sha256)
    , m_sha256(QCryptographicHash::Sha256)
{
}

DownloadDigest::~DownloadDigest() = default;

void DownloadDigest::addData(const char* data, qint64 size)
{
    if (size <= 0)
        return;
    m_size += size;
    // QCryptographicHash takes int sizes in Qt 5.
    for (qint64 done = 0; m_hashSha256 && done < size;) {
        const int part = static_cast<int>(qMin<qint64>(size - done, 1 << 30));
        m_sha256.addData(data + done, part);
        done += part;
    }
    if (m_verifier)
        m_verifier->update(data, size);
}

void DownloadDigest::reset()
{
    m_size = 0;
    m_sha256.reset();
    if (m_verifier)
        m_verifier->reset();
}

qint64 DownloadDigest::size() const
{
    return m_size;
}

QByteArray DownloadDigest::sha256Hex() const
{
    return m_sha256.result().toHex();
}

QString DownloadDigest::check(qint64 expectedSize, const QByteArray& expectedSha256Hex) const
{
    if (expectedSize >= 0 && expectedSize != m_size)
        return QStringLiteral("the file has %1 bytes instead of %2").arg(m_size).arg(expectedSize);
    if (!expectedSha256Hex.isEmpty() && expectedSha256Hex.toLower() != sha256Hex())
        return QStringLiteral("the file's SHA-256 is %1 instead of %2").arg(QString::fromLatin1(sha256Hex()), QString::fromLatin1(expectedSha256Hex.toLower()));
    return QString();
}

DownloadFile::DownloadFile(DownloadDigest* digest)
    : m_digest(digest)
{
}

DownloadFile::~DownloadFile() = default;

bool DownloadFile::open()
{
    const QString folder = QStandardPaths::writableLocation(QStandardPaths::CacheLocation);
    m_file.reset(new QTemporaryFile(folder + QStringLiteral("/download-XXXXXX.part")));
    if (!QDir().mkpath(folder) || !m_file->open()) {
        m_error = QStringLiteral("Failed to create file ") + m_file->fileTemplate();
        m_file.reset();
        return false;
    }
    if (m_digest)
        m_digest->reset();
    return true;
}

bool DownloadFile::write(const char* data, qint64 size)
{
    if (!m_file || !m_file->isOpen() || m_file->write(data, size) != size) {
        m_error = QStringLiteral("Failed to write file ") + temporaryPath();
        return false;
    }
    if (m_digest)
        m_digest->addData(data, size);
    return true;
}

bool DownloadFile::restart()
{
    if (m_digest)
        m_digest->reset();
    if (!m_file || !m_file->isOpen() || !m_file->resize(0) || !m_file->seek(0)) {
        m_error = QStringLiteral("Failed to write file ") + temporaryPath();
        return false;
    }
    return true;
}

QString DownloadFile::temporaryPath() const
{
    return m_file ? m_file->fileName() : QString();
}

bool DownloadFile::commit(const QString& filePath)
{
    m_error = QStringLiteral("Failed to create file ") + filePath;
    if (!m_file || !m_file->flush())
        return false;
    m_file->close();
    // rename() replaces the target in one step; it fails across file systems.
    if (std::rename(QFile::encodeName(m_file->fileName()).constData(), QFile::encodeName(filePath).constData()) == 0) {
        m_file->setAutoRemove(false);
        m_file.reset();
        m_error.clear();
        return true;
    }
    QSaveFile target(filePath);
    if (!m_file->open() || !m_file->seek(0) || !target.open(QIODevice::WriteOnly))
        return false;
    QByteArray chunk;
    while (!(chunk = m_file->read(CopyChunkSize)).isEmpty()) {
        if (target.write(chunk) != chunk.size())
            return false;
    }
    if (m_file->error() != QFileDevice::NoError || !target.commit())
        return false;
    m_file.reset();
    m_error.clear();
    return true;
}

QString DownloadFile::errorString() const
{
    return m_error;
}
