// SPDX-License-Identifier: MIT
// Public keys and signature files come from servers and settings: any bytes must be parsed
// without fault, and whatever parses must have the sizes the verifier relies on.
#include "fuzzcommon_p.h"

#include "minisign_p.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray text = QByteArray::fromRawData(reinterpret_cast<const char*>(data), static_cast<int>(size));

    minisign::PublicKey key;
    if (minisign::parsePublicKey(text, &key).isEmpty()) {
        FUZZ_CHECK(key.keyId.size() == 8 && key.key.size() == 32);
        FUZZ_CHECK(minisign::keyIdText(key.keyId).size() <= 16);
    }

    minisign::Signature signature;
    if (!minisign::parseSignature(text, &signature).isEmpty())
        return 0;
    FUZZ_CHECK(signature.keyId.size() == 8 && signature.signature.size() == 64 && signature.globalSignature.size() == 64);
    FUZZ_CHECK(!signature.trustedComment.contains('\n'));

    // Trust the signer's id (the key itself is arbitrary) so verification runs to the end.
    minisign::PublicKey signer {signature.keyId, QByteArray(32, '\x5a')};
    minisign::Verifier verifier({signer}, signature);
    verifier.update(text.constData(), text.size());
    FUZZ_CHECK(!verifier.verify(QStringLiteral("installer.run"), QString()).isEmpty());
    return 0;
}
