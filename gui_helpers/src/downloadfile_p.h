// SPDX-License-Identifier: MIT
//
// Building blocks of an installer download: a safe file name from the URL, the size and
// hash checks made while the bytes arrive, and a temporary file moved into place at the end.
// Not installed: the library's own use only (and its tests).
#pragma once

#include <QByteArray>
#include <QCryptographicHash>
#include <QString>
#include <QUrl>

#include <memory>

class QTemporaryFile;

namespace minisign
{
class Verifier;
}

/**
 * The name to save a download from @p url under: the last segment of the decoded path (after
 * any '/' or '\\'), with control characters replaced, shortened to 80 characters keeping a
 * short extension, and repaired with FilePathValidator's file-name rules. Never empty, never
 * "." or "..", never containing a separator: "download" when nothing usable is left.
 */
QString safeDownloadFileName(const QUrl& url);

/** @p folder + "/" + safeDownloadFileName(@p url): always a file directly inside @p folder. */
QString downloadFilePath(const QString& folder, const QUrl& url);

/**
 * Takes each arriving chunk once and feeds the byte count, the SHA-256 and, when given, the
 * signature verifier's hash.
 */
class DownloadDigest
{
public:
    /**
     * @p sha256 false skips the SHA-256 (a release that names none): it is the costliest
     * part of a fast download.
     */
    explicit DownloadDigest(minisign::Verifier* verifier = nullptr, bool sha256 = true);
    ~DownloadDigest();
    DownloadDigest(const DownloadDigest&) = delete;
    DownloadDigest& operator=(const DownloadDigest&) = delete;

    void addData(const char* data, qint64 size);
    /** Starts over (a server that answered a resumed request with the whole file). */
    void reset();
    qint64 size() const;
    /** The SHA-256 of the bytes so far, in lower-case hex. */
    QByteArray sha256Hex() const;

    /**
     * Empty when the bytes match, else the reason. @p expectedSize < 0 and an empty
     * @p expectedSha256Hex (64 hex digits, any case) are not checked.
     */
    QString check(qint64 expectedSize, const QByteArray& expectedSha256Hex) const;

private:
    minisign::Verifier* const m_verifier;
    const bool m_hashSha256;
    QCryptographicHash m_sha256;
    qint64 m_size = 0;
};

/**
 * The download on its way: written to a temporary file in the cache location and moved into
 * its folder only by commit(), so no partial file ever carries the final name.
 */
class DownloadFile
{
public:
    /** @p digest (optional, not owned) sees every byte written. */
    explicit DownloadFile(DownloadDigest* digest = nullptr);
    /** Removes the temporary file unless it was committed. */
    ~DownloadFile();
    DownloadFile(const DownloadFile&) = delete;
    DownloadFile& operator=(const DownloadFile&) = delete;

    /** Creates the temporary file; false with errorString() when it cannot. */
    bool open();
    bool write(const char* data, qint64 size);
    bool write(const QByteArray& data) { return write(data.constData(), data.size()); }
    /** Empties the file and resets the digest. */
    bool restart();
    /** The temporary file's path while open (for a check that reads the file back). */
    QString temporaryPath() const;

    /**
     * Moves the file to @p filePath, replacing what is there: a rename when both are on one
     * file system, else a copy to a temporary name beside @p filePath renamed at the end. On
     * failure @p filePath is untouched and errorString() is "Failed to create file <path>".
     */
    bool commit(const QString& filePath);
    QString errorString() const;

private:
    DownloadDigest* const m_digest;
    std::unique_ptr<QTemporaryFile> m_file;
    QString m_error;
};
