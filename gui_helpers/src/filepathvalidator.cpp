// SPDX-License-Identifier: MIT
#include "filepathvalidator.h"

namespace
{
// Built once when the library is loaded; never changed afterwards, so the getters need no lock.
const QSet<QString> reservedWords = {
    QStringLiteral("con"),
    QStringLiteral("prn"),
    QStringLiteral("clock$"),
    QStringLiteral("nul"),
    QStringLiteral("com1"),
    QStringLiteral("com2"),
    QStringLiteral("com3"),
    QStringLiteral("com4"),
    QStringLiteral("com5"),
    QStringLiteral("com6"),
    QStringLiteral("com7"),
    QStringLiteral("com8"),
    QStringLiteral("com9"),
    QStringLiteral("lpt1"),
    QStringLiteral("lpt2"),
    QStringLiteral("lpt3"),
    QStringLiteral("lpt4"),
    QStringLiteral("lpt5"),
    QStringLiteral("lpt6"),
    QStringLiteral("lpt7"),
    QStringLiteral("lpt8"),
    QStringLiteral("lpt9"),
};

const char reservedCharacterTable[] = {'*', ':', '<', '>', '?', '|', '"', '%', '\t', '\n'};

QSet<QChar> makeCharacterSet(const char* characters, size_t count)
{
    QSet<QChar> set;
    for (size_t i = 0; i < count; ++i)
        set.insert(QLatin1Char(characters[i]));
    return set;
}

const QSet<QChar> reservedCharacters = makeCharacterSet(reservedCharacterTable, sizeof(reservedCharacterTable));
const QSet<QChar> illegalEndings = {QLatin1Char(' '), QLatin1Char('.'), QLatin1Char('\t'), QLatin1Char('\n')};
const QSet<QChar> pathSeparators = {QLatin1Char('\\'), QLatin1Char('/')};
const QChar defaultFixCharacter = QLatin1Char('_');
const int maximumFilePathLength = 259;

const QString& prefix()
{
    static const QString prefixStr = QStringLiteral("\\\\?\\");
    return prefixStr;
}

bool isDriveLetter(QChar c)
{
    const ushort u = c.unicode();
    if (u < 128)
        return (u >= 'A' && u <= 'Z') || (u >= 'a' && u <= 'z');
    return c.isLetter();
}

bool hasDriveLetter(const QString& path)
{
    return path.size() >= 2 && path.at(1) == QLatin1Char(':') && isDriveLetter(path.at(0));
}
} // namespace

QSet<QString> FilePathValidator::getReservedWords()
{
    return reservedWords;
}

QSet<QChar> FilePathValidator::getReservedCharacters()
{
    return reservedCharacters;
}

QSet<QChar> FilePathValidator::getIllegalEndings()
{
    return illegalEndings;
}

QSet<QChar> FilePathValidator::getPathSeparators()
{
    return pathSeparators;
}

QChar FilePathValidator::getDefaultFixCharacter()
{
    return defaultFixCharacter;
}

int FilePathValidator::getMaximumFilePathLength()
{
    return maximumFilePathLength;
}

QString FilePathValidator::getLongPathPrefix()
{
    return prefix();
}

int FilePathValidator::validateFilePath(const QString& path, bool fix, QChar fixCharacter, QString& output, bool allowPathSeparators)
{
    // A copy, so that callers may pass the same string as path and output.
    QString text = path;
    bool prefixed = false;
    if (text.startsWith(prefix())) {
        prefixed = true;
        text.remove(0, prefix().size());
    }
    // Every return goes through here so that the prefix, present or added, leads the output.
    auto finish = [&](int result) {
        if (prefixed)
            output.prepend(prefix());
        return result;
    };
    output = text;

    int result = 1;
    if (text.size() > maximumFilePathLength && !prefixed) {
        result = 0;
        // The prefix lifts the limit, so adding it is the repair.
        if (fix)
            prefixed = true;
    }

    if (text.isEmpty()) {
        if (fix)
            output = QString(fixCharacter);
        return finish(-1);
    }
    if (isReservedWord(text, fix, fixCharacter, output))
        return finish(-1);
    if (containsIllegalCharacter(text, fix, fixCharacter, output, allowPathSeparators).second)
        return finish(0);
    if (hasIllegalEnding(text, fix, output))
        return finish(-1);
    return finish(result);
}

int FilePathValidator::validateFilePath(const QString& path)
{
    QString scratch;
    return validateFilePath(path, false, defaultFixCharacter, scratch, true);
}

int FilePathValidator::validateFilePath(const QString& path, QString& output, QChar fixCharacter)
{
    return validateFilePath(path, true, fixCharacter, output, true);
}

int FilePathValidator::validateFileName(const QString& name)
{
    QString scratch;
    return validateFilePath(name, false, defaultFixCharacter, scratch, false);
}

int FilePathValidator::validateFileName(const QString& name, QString& output, QChar fixCharacter)
{
    return validateFilePath(name, true, fixCharacter, output, false);
}

QString FilePathValidator::afterDriveSpecification(const QString& path)
{
    return hasDriveLetter(path) ? path.mid(2) : path;
}

bool FilePathValidator::isReservedWord(const QString& name, bool fix, QChar fixCharacter, QString& output)
{
    const QString text = name;
    output = text;
    const QString baseName = selectFilenameWithoutExtension(text);
    if (!reservedWords.contains(baseName.toLower()))
        return false;
    if (fix)
        output.replace(baseName, QString(baseName.size(), fixCharacter), Qt::CaseSensitive);
    return true;
}

bool FilePathValidator::isReservedWord(const QString& name)
{
    QString scratch;
    return isReservedWord(name, false, defaultFixCharacter, scratch);
}

FilePathValidator::IllegalCharacter FilePathValidator::containsIllegalCharacter(
    const QString& path, bool fix, QChar fixCharacter, QString& output, bool allowPathSeparators)
{
    const QString text = path;
    output = text;
    // The drive's colon is not examined.
    const int start = hasDriveLetter(text) ? 2 : 0;
    IllegalCharacter found(QChar(), false);
    for (int i = start; i < text.size(); ++i) {
        const QChar c = text.at(i);
        if (c.unicode() >= 256)
            continue;
        if (!reservedCharacters.contains(c) && (allowPathSeparators || !pathSeparators.contains(c)))
            continue;
        found = IllegalCharacter(c, true);
        if (!fix)
            break;
        // Replacing each hit as the walk meets it replaces every occurrence of every offending
        // character in one linear pass, however many there are. The drive's colon is skipped
        // by the walk but is an occurrence too: a later colon takes it along.
        output[i] = fixCharacter;
        if (start == 2 && c == QLatin1Char(':'))
            output[1] = fixCharacter;
    }
    return found;
}

FilePathValidator::IllegalCharacter FilePathValidator::containsIllegalCharacter(const QString& path, bool allowPathSeparators)
{
    QString scratch;
    return containsIllegalCharacter(path, false, defaultFixCharacter, scratch, allowPathSeparators);
}

bool FilePathValidator::hasIllegalEnding(const QString& name, bool fix, QString& output)
{
    const QString text = name;
    output = text;
    if (text.isEmpty() || !illegalEndings.contains(text.back()))
        return false;
    if (fix) {
        int end = output.size();
        while (end > 0 && illegalEndings.contains(output.at(end - 1)))
            --end;
        output.truncate(end);
    }
    return true;
}

bool FilePathValidator::hasIllegalEnding(const QString& name)
{
    QString scratch;
    return hasIllegalEnding(name, false, scratch);
}

QString FilePathValidator::selectFilenameWithoutExtension(const QString& path)
{
    const QString text = afterDriveSpecification(path);
    int nameStart = 0;
    for (int i = text.size() - 1; i >= 0; --i) {
        if (pathSeparators.contains(text.at(i))) {
            nameStart = i + 1;
            break;
        }
    }
    const int lastDot = text.lastIndexOf(QLatin1Char('.'));
    const int nameEnd = lastDot >= nameStart ? lastDot : text.size();
    return text.mid(nameStart, nameEnd - nameStart);
}

QFilePathValidator::QFilePathValidator(QObject* parent)
    : QValidator(parent)
{
}

QFilePathValidator::~QFilePathValidator() = default;

namespace
{
QValidator::State toState(int result)
{
    if (result > 0)
        return QValidator::Acceptable;
    return result < 0 ? QValidator::Intermediate : QValidator::Invalid;
}
} // namespace

QValidator::State QFilePathValidator::validate(QString& input, int& position) const
{
    Q_UNUSED(position)
    return toState(FilePathValidator::validateFilePath(input));
}

void QFilePathValidator::fixup(QString& input) const
{
    QString output;
    FilePathValidator::validateFilePath(input, output, FilePathValidator::getDefaultFixCharacter());
    input = output;
}

QFileNameValidator::QFileNameValidator(QObject* parent)
    : QValidator(parent)
{
}

QFileNameValidator::~QFileNameValidator() = default;

QValidator::State QFileNameValidator::validate(QString& input, int& position) const
{
    Q_UNUSED(position)
    return toState(FilePathValidator::validateFileName(input));
}

void QFileNameValidator::fixup(QString& input) const
{
    QString output;
    FilePathValidator::validateFileName(input, output, FilePathValidator::getDefaultFixCharacter());
    input = output;
}
