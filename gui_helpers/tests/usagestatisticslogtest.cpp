// SPDX-License-Identifier: MIT
// Consent, log files and their removal, with settings and logs kept apart per test and out
// of the real home (isolateSettings()).
#include "abstractusagestatisticssingleton.h"
#include "journaller.h"
#include "testhelpers.h"
#include "usagestatisticsfixture.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHostInfo>
#include <QLocale>
#include <QPointer>
#include <QRegularExpression>
#include <QSettings>
#include <QSysInfo>
#include <QTemporaryDir>
#include <QTest>
#include <QTextCodec>
#include <QUuid>

#include <csignal>
#include <sys/resource.h>

namespace
{
// Makes file writes beyond @p bytes fail (EFBIG) while it lives.
class FileSizeLimit
{
public:
    explicit FileSizeLimit(rlim_t bytes)
    {
        std::signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &m_old);
        rlimit limited = m_old;
        limited.rlim_cur = bytes;
        m_ok = setrlimit(RLIMIT_FSIZE, &limited) == 0;
    }
    ~FileSizeLimit() { setrlimit(RLIMIT_FSIZE, &m_old); }
    bool ok() const { return m_ok; }

private:
    rlimit m_old {};
    bool m_ok = false;
};
} // namespace

class UsageStatisticsLogTest : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase()
    {
        QCoreApplication::setApplicationName(QStringLiteral("UsageLogTest"));
        QCoreApplication::setApplicationVersion(QStringLiteral("3.1.4-rc1"));
    }

    void init()
    {
        isolateSettings();
        QVERIFY(usageLogDir().startsWith(testHome()));
    }

    void firstRunAsksOnceAndTreatsUndecidedAsConsent()
    {
        TestUsage usage;
        QVERIFY(usage.firstTimeRunningUsage());
        QVERIFY(usage.firstTimeRunningUsage()); // asking writes nothing
        QVERIFY(usage.allowLogFilesForUser());
        QCOMPARE(usageValue(QStringLiteral("AllowUsageLogsForUsers")), QString());
        QVERIFY(!usage.firstTimeRunningUsage());
        QVERIFY(usage.allowLogFilesForUser());
        QVERIFY(logFiles().isEmpty());
    }

    void consentChanges_data()
    {
        QTest::addColumn<QVariant>("stored");
        QTest::addColumn<bool>("withLog");
        QTest::addColumn<bool>("allow");
        QTest::addColumn<bool>("expectNewLog");
        QTest::addColumn<bool>("expectOldLogKept");

        const QVariant absent;
        QTest::newRow("never asked, grant") << absent << false << true << true << false;
        QTest::newRow("never asked, refuse") << absent << false << false << false << false;
        QTest::newRow("undecided, grant") << QVariant(QString()) << true << true << true << true;
        QTest::newRow("undecided, refuse") << QVariant(QString()) << true << false << false << false;
        QTest::newRow("granted, grant again") << QVariant(true) << true << true << false << true;
        QTest::newRow("granted, withdraw") << QVariant(true) << true << false << false << false;
        QTest::newRow("refused, refuse again") << QVariant(false) << false << false << false << false;
        QTest::newRow("refused, grant again") << QVariant(false) << false << true << true << false;
    }
    void consentChanges()
    {
        QFETCH(QVariant, stored);
        QFETCH(bool, withLog);
        QFETCH(bool, allow);
        QFETCH(bool, expectNewLog);
        QFETCH(bool, expectOldLogKept);

        setUsageValue(QStringLiteral("AllowUsageLogsForUsers"), stored);
        TestUsage usage;
        QString oldLog;
        QByteArray oldBytes;
        if (withLog) {
            usage.recreateLogFile();
            oldLog = usage.logFilePath();
            QVERIFY(QFile::exists(oldLog));
            oldBytes = readFile(oldLog);
        }
        QTest::qWait(2); // distinct millisecond stamps, so a new log has a new name

        usage.setAllowLogFilesForUser(allow);
        QCOMPARE(usageValue(QStringLiteral("AllowUsageLogsForUsers")), QVariant(allow).toString());
        if (withLog) {
            QCOMPARE(QFile::exists(oldLog), expectOldLogKept);
            if (expectOldLogKept)
                QCOMPARE(readFile(oldLog), oldBytes);
        }
        const bool newLog = !usage.logFilePath().isEmpty() && usage.logFilePath() != oldLog;
        QCOMPARE(newLog, expectNewLog);
        if (newLog)
            QCOMPARE(eventsOf(usage.logFilePath()), QStringList {QStringLiteral("AppStarted")});
        QCOMPARE(logFiles().size(), int(expectNewLog) + int(withLog && expectOldLogKept));

        // Later logs follow the stored decision.
        const int before = logFiles().size();
        QTest::qWait(2);
        usage.createLogFile();
        QCOMPARE(logFiles().size(), before + (allow ? 1 : 0));
    }

    void headerIsExactWhateverTheUserLocale_data()
    {
        QTest::addColumn<QString>("extra");
        QTest::addColumn<QVariant>("chosenLocale");
        QTest::addColumn<QByteArray>("expectedExtraLine");
        QTest::addColumn<QByteArray>("expectedLanguage");

        QTest::newRow("extra text and chosen locale") << "Sensor model: XR-7" << QVariant(QStringLiteral("de")) << QByteArray("Sensor model: XR-7\n")
                                                      << QByteArray("de");
        QTest::newRow("no extra text, no chosen locale") << QString() << QVariant() << QByteArray() << QByteArray("en");
        QTest::newRow("chosen locale present but empty") << QString() << QVariant(QString()) << QByteArray() << QByteArray();
        QTest::newRow("non-ASCII extra text in UTF-8")
            << QString::fromUtf8("Gerät µ-Sensor") << QVariant(QStringLiteral("fr_CA")) << QByteArray("Ger\xc3\xa4t \xc2\xb5-Sensor\n") << QByteArray("fr_CA");
    }
    void headerIsExactWhateverTheUserLocale()
    {
        QFETCH(QString, extra);
        QFETCH(QVariant, chosenLocale);
        QFETCH(QByteArray, expectedExtraLine);
        QFETCH(QByteArray, expectedLanguage);

        // A stored ID is used as it is, braces and all.
        const QString org = QCoreApplication::organizationName();
        QSettings(org, QStringLiteral("GUID")).setValue(QStringLiteral("SystemUniqueID"), QStringLiteral("{fixed-id-42}"));
        if (chosenLocale.isValid())
            QSettings(org, QStringLiteral("Locale")).setValue(QStringLiteral("ChosenLocale"), chosenLocale);

        // A user locale with its own digits and its own encoding must leak into neither the
        // date nor the bytes.
        const QLocale previousDefault;
        QTextCodec* const previousCodec = QTextCodec::codecForLocale();
        QLocale::setDefault(QLocale(QLocale::Arabic, QLocale::Egypt));
        QTextCodec::setCodecForLocale(QTextCodec::codecForName("ISO-8859-1"));
        TestUsage usage;
        usage.extra = extra;
        const QString dayBefore = QDate::currentDate().toString(Qt::ISODate);
        usage.createLogFile();
        const QString dayAfter = QDate::currentDate().toString(Qt::ISODate);
        QLocale::setDefault(previousDefault);
        QTextCodec::setCodecForLocale(previousCodec);

        QCOMPARE(usage.logDirectory(), usageLogDir());
        const QFileInfo info(usage.logFilePath());
        QCOMPARE(info.absolutePath() + QLatin1Char('/'), usageLogDir());
        QVERIFY2(
            QRegularExpression(QStringLiteral("^TestApp_\\{fixed-id-42\\}_[0-9]{13}\\.log$")).match(info.fileName()).hasMatch(), qPrintable(info.fileName()));

        auto expected = [&](const QString& day) {
            return QByteArray("Version 3.1.4-rc1 build 6323, rev 112641. 64 bit\n") + "AnonRefID: {fixed-id-42}\n" + "OS: " + QSysInfo::productType().toUtf8()
                + ' ' + QSysInfo::productVersion().toUtf8() + '\n' + expectedExtraLine + "Date: " + day.toLatin1() + '\n' + "Language: " + expectedLanguage
                + "\n\n" + "Events:\n";
        };
        const QByteArray actual = readFile(usage.logFilePath());
        if (actual != expected(dayBefore))
            QCOMPARE(actual, expected(dayAfter)); // the day changed during the call
    }

    void freshAnonymousIdIsSharedByTheOrganisation()
    {
        TestUsage usage;
        usage.createLogFile();
        const QString org = QCoreApplication::organizationName();
        const QString id = QSettings(org, QStringLiteral("GUID")).value(QStringLiteral("SystemUniqueID")).toString();
        QVERIFY(!id.contains(QLatin1Char('{')) && !id.contains(QLatin1Char('}')));
        if (QHostInfo::localDomainName().contains(QLatin1String("veltrax"), Qt::CaseInsensitive))
            QCOMPARE(id, QStringLiteral("veltrax_") + QHostInfo::localHostName());
        else
            QVERIFY2(!QUuid::fromString(id).isNull(), qPrintable(id));
        QVERIFY(readFile(usage.logFilePath()).contains("\nAnonRefID: " + id.toUtf8() + '\n'));
        QVERIFY(QFileInfo(usage.logFilePath()).fileName().startsWith(QStringLiteral("TestApp_") + id + QLatin1Char('_')));

        // Every application of the organisation reports the same ID.
        QCoreApplication::setApplicationName(QStringLiteral("UsageLogTestSibling"));
        TestUsage sibling;
        sibling.createLogFile();
        QCoreApplication::setApplicationName(QStringLiteral("UsageLogTest"));
        QVERIFY(readFile(sibling.logFilePath()).contains("\nAnonRefID: " + id.toUtf8() + '\n'));
    }

    void onceEventsAreOncePerLog()
    {
        TestUsage usage;
        usage.recreateLogFile();
        usage.logUseEvent(QStringLiteral("AppStarted"), true);
        usage.logUseEvent(QStringLiteral("PlotOpened"), true);
        usage.logUseEvent(QStringLiteral("PlotOpened"), true);
        usage.logUseEvent(QStringLiteral("Export"));
        usage.logUseEvent(QStringLiteral("Export"));
        usage.logUseEvent(QStringLiteral("PlotOpened"), false);
        const QString first = usage.logFilePath();
        QCOMPARE(eventsOf(first), QStringLiteral("AppStarted PlotOpened Export Export PlotOpened").split(QLatin1Char(' ')));

        QTest::qWait(2);
        usage.recreateLogFile();
        QVERIFY(usage.logFilePath() != first);
        usage.logUseEvent(QStringLiteral("PlotOpened"), true);
        usage.logUseEvent(QStringLiteral("PlotOpened"), true);
        QCOMPARE(eventsOf(usage.logFilePath()), QStringLiteral("AppStarted PlotOpened").split(QLatin1Char(' ')));
    }

    void eventLinesCarryTimeStampAndReachTheJournal()
    {
        QTemporaryDir journalDir;
        const QString journalPath = journalDir.filePath(QStringLiteral("journal.log"));
        Journaller journal(journalPath.toStdString(), true, JLL_WRITE);
        gJournal = &journal;

        TestUsage usage;
        usage.createLogFile();
        const qint64 before = QDateTime::currentMSecsSinceEpoch();
        usage.logUseEvent(QString::fromUtf8("Gerät verbunden"));
        const qint64 after = QDateTime::currentMSecsSinceEpoch();
        const QByteArray bytes = readFile(usage.logFilePath());
        // Without consent nothing reaches a log, but the journal still gets the event.
        usage.setAllowLogFilesForUser(false);
        usage.logUseEvent(QStringLiteral("WithoutConsent"));
        journal.flush();
        gJournal = nullptr;

        const QString events = QString::fromUtf8(bytes.mid(bytes.indexOf("Events:\n") + 8));
        const QRegularExpressionMatch m = QRegularExpression(QStringLiteral("^([0-9]+) Gerät verbunden\n$")).match(events);
        QVERIFY2(m.hasMatch(), qPrintable(events));
        const qint64 stamp = m.captured(1).toLongLong();
        QVERIFY(stamp >= before && stamp <= after);

        const QByteArray journalBytes = readFile(journalPath);
        QVERIFY2(journalBytes.contains("[WRITE] logUseEvent<QString> Ger\xc3\xa4t verbunden\n"), journalBytes.constData());
        QVERIFY(journalBytes.contains("[WRITE] logUseEvent<QString> WithoutConsent\n"));
    }

    void closingEventEndsTheLogAndMakesItRemovable()
    {
        TestUsage usage;
        usage.recreateLogFile();
        const QString path = usage.logFilePath();
        usage.logUseEvent(QStringLiteral("Export"));
        usage.removeLogFiles();
        QVERIFY(QFile::exists(path)); // the log being written is never deleted

        usage.logUseEvent(QStringLiteral("AppClosed"));
        usage.logUseEvent(QStringLiteral("AfterTheEnd"));
        QCOMPARE(usage.logFilePath(), path + QStringLiteral("_closed"));
        QVERIFY(QFile::exists(path));
        QCOMPARE(eventsOf(path), QStringLiteral("AppStarted Export AppClosed").split(QLatin1Char(' ')));

        usage.removeLogFiles();
        QVERIFY(!QFile::exists(path));
    }

    void removeLogFiles_data()
    {
        QTest::addColumn<QString>("name"); // a directory when it ends in '/'
        QTest::addColumn<QVariant>("deleteSetting");
        QTest::addColumn<bool>("expectRemoved");

        const QVariant absent;
        QTest::newRow("earlier log, deletion not configured") << "TestApp_id_1600000000000.log" << absent << true;
        QTest::newRow("earlier log, DeleteLogFiles empty") << "TestApp_id_1600000000000.log" << QVariant(QString()) << true;
        QTest::newRow("earlier log, DeleteLogFiles true") << "TestApp_id_1600000000000.log" << QVariant(true) << true;
        QTest::newRow("earlier log, DeleteLogFiles false") << "TestApp_id_1600000000000.log" << QVariant(false) << false;
        QTest::newRow("another application's log") << "OtherApp_id_1600000000000.log" << absent << false;
        QTest::newRow("prefix in other case") << "testapp_id_1600000000000.log" << absent << false;
        QTest::newRow("name holds the current log's name") << "%1.bak" << absent << false;
        QTest::newRow("directory with the prefix") << "TestApp_archive/" << absent << false;
    }
    void removeLogFiles()
    {
        QFETCH(QString, name);
        QFETCH(QVariant, deleteSetting);
        QFETCH(bool, expectRemoved);

        setUsageValue(QStringLiteral("DeleteLogFiles"), deleteSetting);
        TestUsage usage;
        usage.recreateLogFile();
        const QString current = usage.logFilePath();
        const QString other = usage.logDirectory() + QString(name).replace(QLatin1String("%1"), QFileInfo(current).fileName());
        QVERIFY(name.endsWith(QLatin1Char('/')) ? QDir().mkpath(other) : writeFile(other, "earlier\n"));

        usage.removeLogFiles();
        QCOMPARE(QFileInfo::exists(other), !expectRemoved);
        QVERIFY(QFile::exists(current));
        usage.logUseEvent(QStringLiteral("StillWriting"));
        QCOMPARE(eventsOf(current), QStringLiteral("AppStarted StillWriting").split(QLatin1Char(' ')));
    }

    void removeLogFilesWithoutLogDoesNothing()
    {
        // No log yet: there is no directory to clean, and the working directory is not one.
        QTemporaryDir cwd;
        const QString previous = QDir::currentPath();
        QVERIFY(QDir::setCurrent(cwd.path()));
        QVERIFY(writeFile(cwd.filePath(QStringLiteral("TestApp_id_1.log")), "earlier\n"));
        TestUsage().removeLogFiles();
        QDir::setCurrent(previous);
        QVERIFY(QFile::exists(cwd.filePath(QStringLiteral("TestApp_id_1.log"))));
    }

    void failedWriteDeletesTheLog_data()
    {
        QTest::addColumn<bool>("duringHeader");
        QTest::newRow("header") << true;
        QTest::newRow("event line") << false;
    }
    void failedWriteDeletesTheLog()
    {
        QFETCH(bool, duringHeader);
        // Decide everything up front: no settings are written while writes fail.
        setUsageValue(QStringLiteral("AllowUsageLogsForUsers"), true);
        QSettings(QCoreApplication::organizationName(), QStringLiteral("GUID")).setValue(QStringLiteral("SystemUniqueID"), QStringLiteral("id"));

        TestUsage usage;
        QString path;
        if (duringHeader) {
            QDir().mkpath(usageLogDir());
            FileSizeLimit limit(0);
            QVERIFY(limit.ok());
            usage.recreateLogFile();
            path = usage.logFilePath();
        } else {
            usage.recreateLogFile();
            path = usage.logFilePath();
            FileSizeLimit limit(QFileInfo(path).size());
            QVERIFY(limit.ok());
            usage.logUseEvent(QStringLiteral("DiskFull"));
        }
        QVERIFY(!path.isEmpty());
        QVERIFY(!QFile::exists(path));
        QVERIFY(logFiles().isEmpty());
        usage.logUseEvent(QStringLiteral("Dropped")); // no log left: silently not written
        QVERIFY(logFiles().isEmpty());
    }

    void cleanupDeletesTheInstanceAndKeepsItsLog()
    {
        QCOMPARE(AbstractUsageStatisticsSingleton::instance(), nullptr);
        AbstractUsageStatisticsSingleton::cleanup(); // nothing stored: nothing happens

        QPointer<TestUsage> usage = new TestUsage;
        AbstractUsageStatisticsSingleton::gAbstractUsageStatisticsSingleton = usage;
        QCOMPARE(AbstractUsageStatisticsSingleton::instance(), usage.data());
        usage->recreateLogFile();
        const QString path = usage->logFilePath();
        usage->logUseEvent(QStringLiteral("LastWords"));

        AbstractUsageStatisticsSingleton::cleanup();
        QVERIFY(usage.isNull());
        QCOMPARE(AbstractUsageStatisticsSingleton::instance(), nullptr);
        QCOMPARE(eventsOf(path), QStringLiteral("AppStarted LastWords").split(QLatin1Char(' ')));
    }
};

QTEST_GUILESS_MAIN(UsageStatisticsLogTest)
#include "usagestatisticslogtest.moc"
