// SPDX-License-Identifier: MIT
//
// File path and file name checks on the most restrictive rules common to the file systems
// our applications write to (reserved device names, reserved characters, bad last
// characters, a length limit that the long-path prefix lifts), with an optional repair, and
// the Qt input validators built on them.
#pragma once

#include "gui_helpers_export.h"

#include <QChar>
#include <QSet>
#include <QString>
#include <QValidator>

#include <utility>

/**
 * Static checks for file paths and file names.
 *
 * The full check returns 1 for a usable text, 0 for an unusable one and -1 for one that is
 * not usable yet but may become so while the user types (empty, a reserved device name, a
 * bad last character). The checks run in a fixed order and stop at the first fault:
 * length, empty, reserved word, reserved character, ending. A repairing call therefore fixes
 * only the fault that stopped it (plus the long-path prefix when the text is too long), so a
 * text with several faults needs several passes. Each pass removes at least one fault as long
 * as the fix character itself is harmless (neither reserved nor an illegal ending); callers
 * that repeat passes should bound the number of passes anyway.
 *
 * Both '\\' and '/' separate directories here, whatever the platform, and a leading drive
 * letter ("C:") belongs to no file name: the rules are the Windows ones, which are the
 * strictest, and a path typed on Linux must also survive a copy to a Windows share.
 *
 * Every function accepts any text (empty, huge, full of reserved characters), and the same
 * QString may be passed as input and output.
 */
class GUI_HELPERS_EXPORT FilePathValidator
{
public:
    /** Result of containsIllegalCharacter(): the offending character and whether one was found. */
    using IllegalCharacter = std::pair<QChar, bool>;

    /** Device names that no file may be called, in lower case, whatever its extension. */
    static QSet<QString> getReservedWords();
    /** Characters no path may contain: * : < > ? | " % tab and line feed. */
    static QSet<QChar> getReservedCharacters();
    /** Characters a name may not end with: space, '.', tab, line feed. */
    static QSet<QChar> getIllegalEndings();
    /** Directory separators: '\\' and '/'. */
    static QSet<QChar> getPathSeparators();
    /** '_', the character repairs use unless told otherwise. */
    static QChar getDefaultFixCharacter();
    /** 259: the longest path accepted without the long-path prefix. */
    static int getMaximumFilePathLength();
    /** The long-path prefix "\\\\?\\" (backslash, backslash, question mark, backslash). */
    static QString getLongPathPrefix();

    /**
     * The full check of @p path. With @p fix, @p output receives the text with the fault that
     * ended the check repaired (see the class comment); without, it receives @p path unchanged.
     * A leading long-path prefix is kept in @p output and is added when fixing a path that is
     * longer than getMaximumFilePathLength().
     */
    static int validateFilePath(const QString& path, bool fix, QChar fixCharacter, QString& output, bool allowPathSeparators);
    /** Checks a path (separators allowed), no repair. */
    static int validateFilePath(const QString& path);
    /** Checks and repairs one fault of a path (separators allowed) into @p output. */
    static int validateFilePath(const QString& path, QString& output, QChar fixCharacter = QLatin1Char('_'));
    /** Checks a file name (separators are reserved characters), no repair. */
    static int validateFileName(const QString& name);
    /** Checks and repairs one fault of a file name (separators are reserved characters) into @p output. */
    static int validateFileName(const QString& name, QString& output, QChar fixCharacter = QLatin1Char('_'));

    /**
     * @p path without a leading drive letter: a letter (ASCII, or any non-ASCII character
     * Qt classes as a letter) followed by ':'. Other texts come back unchanged.
     */
    static QString afterDriveSpecification(const QString& path);

    /**
     * Whether the file name of @p name without its last extension is a reserved word, in any
     * case ("COM1.txt" is reserved, "con.tar.gz" is not). With @p fix, every occurrence of that
     * base name in @p output (case-sensitive) is overwritten with @p fixCharacter, so
     * "COM1.txt" becomes "____.txt".
     */
    static bool isReservedWord(const QString& name, bool fix, QChar fixCharacter, QString& output);
    static bool isReservedWord(const QString& name);

    /**
     * Looks for reserved characters in @p path, and for separators too unless
     * @p allowPathSeparators. A drive letter's colon is not looked at. Without @p fix the
     * first offending character is returned; with @p fix every occurrence of each offending
     * character in @p output is replaced by @p fixCharacter and the last one found is
     * returned. Only characters below U+0100 can offend. So a repair keeps a drive's colon
     * unless another colon offends: "C:\\a:b" becomes "C_\\a_b".
     */
    static IllegalCharacter containsIllegalCharacter(const QString& path, bool fix, QChar fixCharacter, QString& output, bool allowPathSeparators);
    static IllegalCharacter containsIllegalCharacter(const QString& path, bool allowPathSeparators = true);

    /**
     * Whether @p name ends with a space, '.', tab or line feed. With @p fix, @p output loses
     * all such characters at its end ("a. ." becomes "a"; " " becomes empty).
     */
    static bool hasIllegalEnding(const QString& name, bool fix, QString& output);
    static bool hasIllegalEnding(const QString& name);

    /**
     * The file name of @p path without its directory, drive and last extension, as
     * QFileInfo::completeBaseName() gives it but with both separators: "C:\\d\\a.b.c" gives "a.b".
     */
    static QString selectFilenameWithoutExtension(const QString& path);
};

/**
 * Input validator for line edits that take a file path: Acceptable, Intermediate or Invalid
 * as FilePathValidator::validateFilePath() decides. fixup() repairs one fault per call.
 */
class GUI_HELPERS_EXPORT QFilePathValidator : public QValidator
{
    Q_OBJECT
    Q_DISABLE_COPY(QFilePathValidator)
public:
    explicit QFilePathValidator(QObject* parent = nullptr);
    ~QFilePathValidator() override;

    State validate(QString& input, int& position) const override;
    void fixup(QString& input) const override;
};

/**
 * Input validator for line edits that take a file name (no directories): Acceptable,
 * Intermediate or Invalid as FilePathValidator::validateFileName() decides. fixup() repairs
 * one fault per call.
 */
class GUI_HELPERS_EXPORT QFileNameValidator : public QValidator
{
    Q_OBJECT
    Q_DISABLE_COPY(QFileNameValidator)
public:
    explicit QFileNameValidator(QObject* parent = nullptr);
    ~QFileNameValidator() override;

    State validate(QString& input, int& position) const override;
    void fixup(QString& input) const override;
};
