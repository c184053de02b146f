// SPDX-License-Identifier: MIT
#include "minisign_p.h"

#include <QFile>
#include <QList>

#include <sodium.h>

#include <cstring>

namespace minisign
{

namespace
{

constexpr int AlgorithmSize = 2;
constexpr int KeyIdSize = 8;
constexpr int KeySize = crypto_sign_PUBLICKEYBYTES;
constexpr int SignatureSize = crypto_sign_BYTES;
constexpr int HashSize = crypto_generichash_BYTES_MAX;
// minisign writes a few hundred bytes; anything far larger is not a signature file.
constexpr int MaximumSignatureFileSize = 16 * 1024;

const QByteArray UntrustedPrefix = QByteArrayLiteral("untrusted comment: ");
const QByteArray TrustedPrefix = QByteArrayLiteral("trusted comment: ");

bool sodiumReady()
{
    static const bool ready = sodium_init() >= 0;
    return ready;
}

// Strict base64 (standard alphabet, padding required, nothing else on the line).
bool decodeBase64(const QByteArray& text, int expectedSize, QByteArray* out, QString* error, const QString& what)
{
    QByteArray bytes(text.size(), Qt::Uninitialized);
    size_t length = 0;
    const char* end = nullptr;
    if (text.isEmpty()
        || sodium_base642bin(reinterpret_cast<unsigned char*>(bytes.data()),
               static_cast<size_t>(bytes.size()),
               text.constData(),
               static_cast<size_t>(text.size()),
               nullptr,
               &length,
               &end,
               sodium_base64_VARIANT_ORIGINAL)
            != 0
        || end != text.constData() + text.size()) {
        *error = QStringLiteral("%1 is not valid base64").arg(what);
        return false;
    }
    if (length != static_cast<size_t>(expectedSize)) {
        *error = QStringLiteral("%1 has %2 bytes instead of %3").arg(what).arg(length).arg(expectedSize);
        return false;
    }
    bytes.truncate(static_cast<int>(length));
    *out = bytes;
    return true;
}

QList<QByteArray> textLines(const QByteArray& text)
{
    QList<QByteArray> lines = text.split('\n');
    for (QByteArray& line : lines) {
        if (line.endsWith('\r'))
            line.chop(1);
    }
    while (!lines.isEmpty() && lines.last().isEmpty())
        lines.removeLast();
    return lines;
}

const unsigned char* bytes(const QByteArray& array)
{
    return reinterpret_cast<const unsigned char*>(array.constData());
}

} // namespace

QString parsePublicKey(const QByteArray& text, PublicKey* key)
{
    QList<QByteArray> lines = textLines(text.trimmed());
    if (lines.size() == 2 && lines.first().startsWith(UntrustedPrefix))
        lines.removeFirst();
    if (lines.size() != 1)
        return QStringLiteral("the public key is not one base64 line");
    QByteArray decoded;
    QString error;
    if (!decodeBase64(lines.first().trimmed(), AlgorithmSize + KeyIdSize + KeySize, &decoded, &error, QStringLiteral("the public key")))
        return error;
    if (!decoded.startsWith("Ed"))
        return QStringLiteral("the public key is not an Ed25519 key");
    key->keyId = decoded.mid(AlgorithmSize, KeyIdSize);
    key->key = decoded.mid(AlgorithmSize + KeyIdSize);
    return QString();
}

QString parseSignature(const QByteArray& text, Signature* signature)
{
    if (text.trimmed().isEmpty())
        return QStringLiteral("the signature file is empty");
    if (text.size() > MaximumSignatureFileSize)
        return QStringLiteral("the signature file is too large");
    const QList<QByteArray> lines = textLines(text);
    if (!lines.first().startsWith(UntrustedPrefix))
        return QStringLiteral("the signature file does not start with an untrusted comment");
    if (lines.size() < 4)
        return QStringLiteral("the signature file has %1 lines instead of 4").arg(lines.size());
    for (int i = 4; i < lines.size(); ++i) {
        if (!lines.at(i).trimmed().isEmpty())
            return QStringLiteral("the signature file has more than 4 lines");
    }

    QByteArray decoded;
    QString error;
    if (!decodeBase64(lines.at(1), AlgorithmSize + KeyIdSize + SignatureSize, &decoded, &error, QStringLiteral("the signature")))
        return error;
    const QByteArray algorithm = decoded.left(AlgorithmSize);
    if (algorithm != "ED" && algorithm != "Ed")
        return QStringLiteral("the signature's algorithm is unknown");
    if (!lines.at(2).startsWith(TrustedPrefix))
        return QStringLiteral("the signature file's third line is not a trusted comment");
    QByteArray global;
    if (!decodeBase64(lines.at(3), SignatureSize, &global, &error, QStringLiteral("the trusted comment's signature")))
        return error;

    signature->prehashed = algorithm == "ED";
    signature->keyId = decoded.mid(AlgorithmSize, KeyIdSize);
    signature->signature = decoded.mid(AlgorithmSize + KeyIdSize);
    signature->trustedComment = lines.at(2).mid(TrustedPrefix.size());
    signature->globalSignature = global;
    return QString();
}

QString keyIdText(const QByteArray& keyId)
{
    quint64 number = 0;
    for (int i = qMin(keyId.size(), KeyIdSize) - 1; i >= 0; --i)
        number = (number << 8) | static_cast<unsigned char>(keyId.at(i));
    return QString::number(number, 16).toUpper();
}

struct Verifier::State {
    QVector<PublicKey> trustedKeys;
    Signature signature;
    crypto_generichash_state hash;
};

Verifier::Verifier(const QVector<PublicKey>& trustedKeys, const Signature& signature)
    : d(new State {trustedKeys, signature, {}})
{
    reset();
}

Verifier::~Verifier() = default;

void Verifier::reset()
{
    sodiumReady();
    crypto_generichash_init(&d->hash, nullptr, 0, HashSize);
}

void Verifier::update(const char* data, qint64 size)
{
    if (!d->signature.prehashed || size <= 0)
        return;
    crypto_generichash_update(&d->hash, reinterpret_cast<const unsigned char*>(data), static_cast<unsigned long long>(size));
}

QString Verifier::verify(const QString& expectedFileName, const QString& filePath) const
{
    if (!sodiumReady())
        return QStringLiteral("the cryptography library could not be initialised");
    const Signature& signature = d->signature;
    const PublicKey* signer = nullptr;
    for (const PublicKey& key : d->trustedKeys) {
        if (key.keyId == signature.keyId && key.key.size() == KeySize) {
            signer = &key;
            break;
        }
    }
    if (!signer || signature.signature.size() != SignatureSize || signature.globalSignature.size() != SignatureSize)
        return QStringLiteral("the signature was made with key %1, which is not trusted").arg(minisign::keyIdText(signature.keyId));

    bool matches = false;
    if (signature.prehashed) {
        crypto_generichash_state state = d->hash; // final() consumes the state; verify() stays repeatable
        unsigned char hash[HashSize];
        crypto_generichash_final(&state, hash, sizeof hash);
        matches = crypto_sign_verify_detached(bytes(signature.signature), hash, sizeof hash, bytes(signer->key)) == 0;
    } else {
        // libsodium verifies plain Ed25519 only over a message held whole, and has no streaming
        // form of it; so the legacy form reads the finished file back, mapped rather than copied.
        // This second pass is the legacy form's alone: minisign signs prehashed by default.
        QFile file(filePath);
        if (!file.open(QIODevice::ReadOnly))
            return QStringLiteral("the downloaded file could not be read back");
        static const unsigned char nothing = 0;
        const unsigned char* message = &nothing;
        if (file.size() > 0) {
            message = file.map(0, file.size());
            if (!message)
                return QStringLiteral("the downloaded file could not be read back");
        }
        matches = crypto_sign_verify_detached(bytes(signature.signature), message, static_cast<unsigned long long>(file.size()), bytes(signer->key)) == 0;
    }
    if (!matches)
        return QStringLiteral("the signature does not match the file");

    const QByteArray signedComment = signature.signature + signature.trustedComment;
    if (crypto_sign_verify_detached(
            bytes(signature.globalSignature), bytes(signedComment), static_cast<unsigned long long>(signedComment.size()), bytes(signer->key))
        != 0)
        return QStringLiteral("the trusted comment's signature does not match");

    // minisign writes "timestamp:<t>\tfile:<name>\thashed"; other tools may write other fields.
    const QList<QByteArray> fields = signature.trustedComment.split('\t');
    for (const QByteArray& field : fields) {
        if (!field.startsWith("file:"))
            continue;
        const QString signedName = QString::fromUtf8(field.mid(5));
        if (signedName != expectedFileName)
            return QStringLiteral("the signature is for the file \"%1\", not \"%2\"").arg(signedName, expectedFileName);
    }
    return QString();
}

QString Verifier::keyIdText() const
{
    return minisign::keyIdText(d->signature.keyId);
}

} // namespace minisign
