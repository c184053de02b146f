// SPDX-License-Identifier: MIT
// Paths typed by users, pasted or read from settings: any text must be judged without
// fault, a repair must not change the verdict, and repeated repairs with a harmless fix
// character must end in a usable text.
#include "fuzzcommon_p.h"

#include "filepathvalidator.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1)
        return 0;
    // First byte: bit 0 allows separators, bit 1 reads the rest as UTF-16 rather than
    // UTF-8, bits 2-3 pick the fix character.
    const uint8_t flags = data[0];
    const bool allowSeparators = flags & 1;
    const char* bytes = reinterpret_cast<const char*>(data + 1);
    const int length = static_cast<int>(size - 1);
    const QString path = (flags & 2) ? QString(reinterpret_cast<const QChar*>(bytes), length / 2) : QString::fromUtf8(bytes, length);
    static const QChar fixCharacters[] = {QLatin1Char('_'), QLatin1Char('-'), QLatin1Char('x'), QChar(0x00E9)};
    const QChar fixCharacter = fixCharacters[(flags >> 2) & 3];

    QString unchanged;
    const int verdict = FilePathValidator::validateFilePath(path, false, fixCharacter, unchanged, allowSeparators);
    FUZZ_CHECK(verdict >= -1 && verdict <= 1);
    FUZZ_CHECK(unchanged == path);

    QString repaired;
    FUZZ_CHECK(FilePathValidator::validateFilePath(path, true, fixCharacter, repaired, allowSeparators) == verdict);
    if (verdict == 1)
        FUZZ_CHECK(repaired == path);

    // Input and output may be the same string.
    QString inPlace = path;
    FUZZ_CHECK(FilePathValidator::validateFilePath(inPlace, true, fixCharacter, inPlace, allowSeparators) == verdict);
    FUZZ_CHECK(inPlace == repaired);

    // Each pass removes at least one fault; five kinds of fault exist.
    QString text = path;
    int result = verdict;
    for (int pass = 0; pass < 8 && result != 1; ++pass) {
        QString next;
        FilePathValidator::validateFilePath(text, true, fixCharacter, next, allowSeparators);
        text = next;
        result = FilePathValidator::validateFilePath(text, false, fixCharacter, next, allowSeparators);
    }
    FUZZ_CHECK(result == 1);

    // The parts on their own, and the validators the line edits use.
    FilePathValidator::afterDriveSpecification(path);
    FilePathValidator::selectFilenameWithoutExtension(path);
    QFilePathValidator pathValidator(nullptr);
    QFileNameValidator nameValidator(nullptr);
    QString edited = path;
    int position = 0;
    pathValidator.validate(edited, position);
    pathValidator.fixup(edited);
    edited = path;
    nameValidator.validate(edited, position);
    nameValidator.fixup(edited);
    return 0;
}
