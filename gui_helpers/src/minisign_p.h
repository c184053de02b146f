// SPDX-License-Identifier: MIT
//
// Checks of minisign signatures (public keys, .minisig files) over libsodium. Not installed:
// the download's own use only (and its tests and fuzz target).
#pragma once

#include <QByteArray>
#include <QString>
#include <QVector>

#include <memory>

namespace minisign
{

/** A public key: the 8-byte key id and the 32-byte Ed25519 key. */
struct PublicKey {
    QByteArray keyId;
    QByteArray key;
};

/** The parts of a .minisig file. */
struct Signature {
    /** "ED": the signature is over the BLAKE2b-512 hash of the file; "Ed" (legacy): over the file itself. */
    bool prehashed = true;
    QByteArray keyId;
    QByteArray signature;
    /** The text after "trusted comment: ", without the line end. */
    QByteArray trustedComment;
    /** Over signature followed by trustedComment. */
    QByteArray globalSignature;
};

/**
 * Reads a public key from its base64 line, or from the whole .pub text (an untrusted comment
 * line, then the base64 line). Returns an empty text on success, else why the key is refused.
 */
QString parsePublicKey(const QByteArray& text, PublicKey* key);

/**
 * Reads a .minisig text: an untrusted comment line, the base64 signature line, a trusted
 * comment line and the base64 global signature line; '\n' or "\r\n" line ends, blank lines
 * after the fourth allowed. Returns an empty text on success, else why the file is refused.
 */
QString parseSignature(const QByteArray& text, Signature* signature);

/** The key id as minisign prints it: the little-endian 64-bit number in upper-case hex. */
QString keyIdText(const QByteArray& keyId);

/**
 * Verifies a file against a parsed signature while the file arrives: update() with every
 * chunk in order (reset() to start over), then verify(). Only the prehashed form is
 * hashed on the way; the legacy form is checked over the finished file instead (see verify()).
 */
class Verifier
{
public:
    Verifier(const QVector<PublicKey>& trustedKeys, const Signature& signature);
    ~Verifier();
    Verifier(const Verifier&) = delete;
    Verifier& operator=(const Verifier&) = delete;

    void reset();
    void update(const char* data, qint64 size);

    /**
     * Empty on success, else the reason: the signer is not among the trusted keys, the
     * signature does not match the bytes, the trusted comment's signature does not match, or
     * the trusted comment's "file:" field (when present) differs from @p expectedFileName.
     * @p filePath is the finished file, read only for a legacy signature.
     */
    QString verify(const QString& expectedFileName, const QString& filePath) const;

    /** The signer's key id as minisign prints it. */
    QString keyIdText() const;

private:
    struct State;
    std::unique_ptr<State> const d;
};

} // namespace minisign
