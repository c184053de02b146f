// SPDX-License-Identifier: MIT
#include "filepathvalidator.h"

#include <QLineEdit>
#include <QSignalSpy>
#include <QTest>

namespace
{
const QString prefix = QStringLiteral("\\\\?\\");

QString repeated(char c, int count)
{
    return QString(count, QLatin1Char(c));
}

// Runs repairing passes until the text is valid; the bound keeps a regression from hanging.
int passesToValid(QString& text, bool asName, int bound)
{
    for (int pass = 0; pass < bound; ++pass) {
        const int result = asName ? FilePathValidator::validateFileName(text) : FilePathValidator::validateFilePath(text);
        if (result == 1)
            return pass;
        QString output;
        if (asName)
            FilePathValidator::validateFileName(text, output);
        else
            FilePathValidator::validateFilePath(text, output);
        text = output;
    }
    return -1;
}
} // namespace

class FilePathValidatorTest : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    // One pass of the full check: its result, and what a repairing pass makes of the text.
    void fullCheckAndOneRepair_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<bool>("asName");
        QTest::addColumn<int>("result");
        QTest::addColumn<QString>("repaired");

        QTest::newRow("empty path") << QString() << false << -1 << "_";
        QTest::newRow("plain name") << "report.txt" << true << 1 << "report.txt";
        QTest::newRow("absolute unix path") << "/home/user/report.txt" << false << 1 << "/home/user/report.txt";
        QTest::newRow("drive path") << "C:\\data\\x.txt" << false << 1 << "C:\\data\\x.txt";
        QTest::newRow("drive path as name") << "C:\\data\\x.txt" << true << 0 << "C:_data_x.txt";
        QTest::newRow("slash in name") << "a/b" << true << 0 << "a_b";
        QTest::newRow("bare drive") << "C:" << false << 1 << "C:";
        // A repair replaces every colon once one offends, the drive's included.
        QTest::newRow("colon after drive") << "C:\\a:b" << false << 0 << "C_\\a_b";
        QTest::newRow("star after drive") << "C:\\a*b" << false << 0 << "C:\\a_b";
        QTest::newRow("digit is no drive") << "1:\\x" << false << 0 << "1_\\x";
        QTest::newRow("non-ASCII letter drive") << QString::fromUtf8("É:\\x") << false << 1 << QString::fromUtf8("É:\\x");
        QTest::newRow("non-ASCII symbol is no drive") << QString::fromUtf8("€:x") << false << 0 << QString::fromUtf8("€_x");

        QTest::newRow("259 characters") << repeated('a', 259) << false << 1 << repeated('a', 259);
        QTest::newRow("260 characters") << repeated('a', 260) << false << 0 << prefix + repeated('a', 260);
        QTest::newRow("260 characters prefixed") << prefix + repeated('a', 260) << false << 1 << prefix + repeated('a', 260);
        QTest::newRow("prefix alone") << prefix << false << -1 << prefix + "_";
        QTest::newRow("prefix with slashes is no prefix") << "//?/x" << false << 0 << "//_/x";
        QTest::newRow("too long and a star") << repeated('a', 299) + "*" << false << 0 << prefix + repeated('a', 299) + "_";
        QTest::newRow("too long and a reserved word") << repeated('d', 300) + "/con" << false << -1 << prefix + repeated('d', 300) + "/___";

        // Upper and mixed case: "Com1.txt" and "CLOCK$".
        QTest::newRow("con") << "con" << true << -1 << "___";
        QTest::newRow("Com1.txt") << "Com1.txt" << true << -1 << "____.txt";
        QTest::newRow("CLOCK$") << "CLOCK$" << true << -1 << "______";
        QTest::newRow("nul in a directory") << "dir/nul.txt" << false << -1 << "dir/___.txt";
        QTest::newRow("prn after a drive") << "C:prn" << false << -1 << "C:___";
        QTest::newRow("prefixed reserved word") << prefix + "aux\\con" << false << -1 << prefix + "aux\\___";
        QTest::newRow("lpt10") << "lpt10" << true << 1 << "lpt10";
        QTest::newRow("aux") << "aux" << true << 1 << "aux";
        QTest::newRow("com0") << "com0" << true << 1 << "com0";
        QTest::newRow("only the last extension goes") << "con.tar.gz" << true << 1 << "con.tar.gz";
        QTest::newRow("reserved word inside a name") << "icon.png" << true << 1 << "icon.png";

        // Each reserved character alone: everyReservedCharacterIsRepaired.
        QTest::newRow("mixed reserved characters") << "a?b<c>" << false << 0 << "a_b_c_";
        QTest::newRow("characters beyond Latin-1") << QString::fromUtf8("日本語.txt") << true << 1 << QString::fromUtf8("日本語.txt");
        // The low byte of U+012A is '*': only characters below 256 may offend.
        QTest::newRow("U+012A is no star") << QString(QChar(0x012A)) + "x" << true << 1 << QString(QChar(0x012A)) + "x";

        QTest::newRow("dot space dot") << "name. ." << true << -1 << "name";
        QTest::newRow("only dots") << "..." << true << -1 << "";
        QTest::newRow("trailing slash in path") << "dir/" << false << 1 << "dir/";
        // Tab is a reserved character first, so they never get as far as the ending.
        QTest::newRow("trailing tab") << "name\t" << true << 0 << "name_";
        QTest::newRow("dot inside") << "a.b" << true << 1 << "a.b";
    }
    void fullCheckAndOneRepair()
    {
        QFETCH(QString, text);
        QFETCH(bool, asName);
        QFETCH(int, result);
        QFETCH(QString, repaired);

        QCOMPARE(asName ? FilePathValidator::validateFileName(text) : FilePathValidator::validateFilePath(text), result);

        QString output = QStringLiteral("stale");
        const int fixResult = asName ? FilePathValidator::validateFileName(text, output) : FilePathValidator::validateFilePath(text, output);
        QCOMPARE(fixResult, result);
        QCOMPARE(output, repaired);

        // Without repair the output is the text itself.
        QString untouched;
        FilePathValidator::validateFilePath(text, false, QLatin1Char('_'), untouched, !asName);
        QCOMPARE(untouched, text);
    }

    void everyReservedCharacterIsRepaired_data()
    {
        QTest::addColumn<QChar>("character");
        for (const QChar c : QStringLiteral("*:<>?|\"%\t\n"))
            QTest::addRow("U+%04X", c.unicode()) << c;
    }
    void everyReservedCharacterIsRepaired()
    {
        QFETCH(QChar, character);
        const QString text = QStringLiteral("ab") + character + "cd" + character;
        QString output;
        QCOMPARE(FilePathValidator::validateFilePath(text), 0);
        QCOMPARE(FilePathValidator::validateFileName(text, output, QLatin1Char('-')), 0);
        QCOMPARE(output, QStringLiteral("ab-cd-"));
        QCOMPARE(FilePathValidator::containsIllegalCharacter(text), std::make_pair(character, true));
    }

    void illegalCharacterReportsFirstOrLastOffender()
    {
        QString output;
        QCOMPARE(FilePathValidator::containsIllegalCharacter("a?b/c*d", false), std::make_pair(QChar('?'), true));
        QCOMPARE(FilePathValidator::containsIllegalCharacter("a?b/c*d", true, QLatin1Char('_'), output, false), std::make_pair(QChar('*'), true));
        QCOMPARE(output, QStringLiteral("a_b_c_d"));
        QCOMPARE(FilePathValidator::containsIllegalCharacter("a?b/c*d", true, QLatin1Char('_'), output, true), std::make_pair(QChar('*'), true));
        QCOMPARE(output, QStringLiteral("a_b/c_d"));
        QCOMPARE(FilePathValidator::containsIllegalCharacter("a/b\\c", true).second, false);
        QCOMPARE(FilePathValidator::containsIllegalCharacter("a/b\\c", false), std::make_pair(QChar('/'), true));
        QCOMPARE(FilePathValidator::containsIllegalCharacter(QString()).second, false);
    }

    // afterDriveSpecification, or selectFilenameWithoutExtension in the "base" rows.
    void pathPieces_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<bool>("drive");
        QTest::addColumn<QString>("piece");
        QTest::newRow("upper-case drive") << "C:\\x" << true << "\\x";
        QTest::newRow("lower-case drive") << "z:/x" << true << "/x";
        QTest::newRow("drive alone") << "c:" << true << "";
        QTest::newRow("one letter") << "C" << true << "C";
        QTest::newRow("empty") << "" << true << "";
        QTest::newRow("digit") << "1:x" << true << "1:x";
        QTest::newRow("leading colon") << ":x" << true << ":x";
        QTest::newRow("non-ASCII letter") << QString::fromUtf8("é:x") << true << "x";
        QTest::newRow("non-ASCII symbol") << QString::fromUtf8("€:x") << true << QString::fromUtf8("€:x");
        QTest::newRow("colon third") << "ab:x" << true << "ab:x";
        QTest::newRow("base: last extension only") << "a.b.c" << false << "a.b";
        QTest::newRow("base: unix directory") << "/dir/name.txt" << false << "name";
        QTest::newRow("base: windows directory") << "C:\\dir\\name.txt" << false << "name";
        QTest::newRow("base: drive-relative") << "C:name.txt" << false << "name";
        QTest::newRow("base: hidden file") << ".bashrc" << false << "";
        QTest::newRow("base: dot in directory only") << "dir.d/file" << false << "file";
        QTest::newRow("base: trailing separator") << "dir/" << false << "";
        QTest::newRow("base: no extension") << "README" << false << "README";
    }
    void pathPieces()
    {
        QFETCH(QString, text);
        QFETCH(bool, drive);
        QTEST(drive ? FilePathValidator::afterDriveSpecification(text) : FilePathValidator::selectFilenameWithoutExtension(text), "piece");
    }

    // Each pass repairs one fault, so the number of passes counts the faults that stop the check.
    void repeatedRepairReachesValid_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<bool>("asName");
        QTest::addColumn<int>("passes");
        QTest::addColumn<QString>("valid");
        QTest::newRow("star and trailing dot") << "a*b." << true << 2 << "a_b";
        QTest::newRow("reserved word and trailing space") << "COM1.txt " << true << 2 << "____.txt";
        QTest::newRow("reserved word with trailing dot") << "con." << true << 2 << "___";
        QTest::newRow("only spaces") << "   " << true << 2 << "_";
        QTest::newRow("long, star and dot") << repeated('a', 300) + "*." << false << 2 << prefix + repeated('a', 300) + "_";
        QTest::newRow("long with trailing dot") << repeated('a', 300) + "." << false << 1 << prefix + repeated('a', 300);
        // The reserved word stops the check before the separators are looked at.
        QTest::newRow("reserved word behind separators in name") << "C:\\x\\nul" << true << 2 << "C:_x____";
    }
    void repeatedRepairReachesValid()
    {
        QFETCH(QString, text);
        QFETCH(bool, asName);
        QTEST(passesToValid(text, asName, 10), "passes");
        QTEST(text, "valid");
    }

    void sameStringAsInputAndOutput()
    {
        QString text = QStringLiteral("con.txt");
        QCOMPARE(FilePathValidator::validateFileName(text, text), -1);
        QCOMPARE(text, QStringLiteral("___.txt"));
        text = QStringLiteral("a*b");
        QCOMPARE(FilePathValidator::containsIllegalCharacter(text, true, QLatin1Char('_'), text, true).second, true);
        QCOMPARE(text, QStringLiteral("a_b"));
        text = QStringLiteral("a. ");
        QVERIFY(FilePathValidator::hasIllegalEnding(text, true, text));
        QCOMPARE(text, QStringLiteral("a"));
        text = prefix + repeated('x', 300);
        QCOMPARE(FilePathValidator::validateFilePath(text, text), 1);
        QCOMPARE(text, prefix + repeated('x', 300));
    }

    void hugeTextsStayBoundedAndRepairable()
    {
        const int size = 1 << 20;
        QString allReserved;
        allReserved.reserve(size);
        const QString table = QStringLiteral("*:<>?|\"%\t\n");
        for (int i = 0; i < size; ++i)
            allReserved.append(table.at(i % table.size()));

        QString output;
        QCOMPARE(FilePathValidator::validateFileName(allReserved), 0);
        QCOMPARE(FilePathValidator::validateFileName(allReserved, output), 0);
        QCOMPARE(output, prefix + QString(size, QLatin1Char('_')));

        QString text = allReserved;
        QCOMPARE(passesToValid(text, true, 10), 1);

        text = QStringLiteral("con") + QString(size, QLatin1Char('.'));
        QCOMPARE(passesToValid(text, false, 10), 2);
        QCOMPARE(text, prefix + "___");
    }

    // What a user sees: keystrokes that would make the text invalid are refused, and Return
    // runs fixup() once on intermediate text; a second fault keeps the text as typed.
    void lineEditTyping_data()
    {
        QTest::addColumn<QString>("typed");
        QTest::addColumn<bool>("asName");
        QTest::addColumn<QString>("shown");
        QTest::addColumn<bool>("acceptable");
        QTest::addColumn<QString>("afterReturn"); // empty: Return is accepted as shown
        QTest::newRow("name") << "report.txt" << true << "report.txt" << true << QString();
        QTest::newRow("stars refused") << "a*b*" << true << "ab" << true << QString();
        QTest::newRow("slash refused in name") << "dir/x" << true << "dirx" << true << QString();
        QTest::newRow("slash kept in path") << "dir/x" << false << "dir/x" << true << QString();
        QTest::newRow("reserved word repaired on Return") << "Con.txt" << true << "Con.txt" << false << "___.txt";
        QTest::newRow("trailing dots repaired on Return") << "name.." << true << "name.." << false << "name";
        QTest::newRow("second fault stays on Return") << "con." << true << "con." << false << "con.";
        QTest::newRow("stops at 259 characters") << repeated('a', 270) << false << repeated('a', 259) << true << QString();
        // The prefix cannot be typed: its '?' is refused on the way.
        QTest::newRow("prefix cannot be typed") << prefix + "x" << false << "\\\\\\x" << true << QString();
    }
    void lineEditTyping()
    {
        QFETCH(QString, typed);
        QFETCH(bool, asName);
        QFETCH(QString, shown);
        QFETCH(QString, afterReturn);
        QLineEdit edit;
        if (asName)
            edit.setValidator(new QFileNameValidator(&edit));
        else
            edit.setValidator(new QFilePathValidator(&edit));
        edit.show();
        QVERIFY(QTest::qWaitForWindowExposed(&edit));
        QSignalSpy returned(&edit, &QLineEdit::returnPressed);
        QTest::keyClicks(&edit, typed);
        QCOMPARE(edit.text(), shown);
        QTEST(edit.hasAcceptableInput(), "acceptable");
        QTest::keyClick(&edit, Qt::Key_Return);
        QCOMPARE(edit.text(), afterReturn.isEmpty() ? shown : afterReturn);
        QCOMPARE(returned.count(), edit.hasAcceptableInput() ? 1 : 0);
    }

    void lineEditTakesPastedLongPathOnlyWithPrefix()
    {
        QLineEdit edit;
        edit.setValidator(new QFilePathValidator(&edit));
        edit.insert(repeated('a', 300));
        QCOMPARE(edit.text(), QString());
        edit.insert(prefix + repeated('a', 300));
        QCOMPARE(edit.text(), prefix + repeated('a', 300));
        QVERIFY(edit.hasAcceptableInput());
    }
};

QTEST_MAIN(FilePathValidatorTest)
#include "filepathvalidatortest.moc"
