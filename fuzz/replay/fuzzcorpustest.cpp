// SPDX-License-Identifier: MIT
//
// Each fuzz target's seeds, fed to its entry point one file at a time. The targets check
// their own properties and abort on a violation; a seed that fails makes this test crash
// in its row (run with -v2 to see the rows as they start).
#include <QDir>
#include <QFile>
#include <QtTest>

#include <cstdint>
#include <cstring>
#include <memory>

#define FUZZ_TARGET(name) extern "C" int replay_##name##_testOneInput(const uint8_t* data, size_t size);
FUZZ_TARGET(filepathvalidator)
FUZZ_TARGET(jsonstring)
FUZZ_TARGET(minisign)
FUZZ_TARGET(serverresponseparser)
FUZZ_TARGET(settingsfile)
FUZZ_TARGET(updateserverrequest)
FUZZ_TARGET(variant)
FUZZ_TARGET(vxastring)
FUZZ_TARGET(vxversion)
#undef FUZZ_TARGET

using EntryPoint = int (*)(const uint8_t*, size_t);
Q_DECLARE_METATYPE(EntryPoint)

class FuzzCorpusTest : public QObject
{
    Q_OBJECT

private slots:
    void replay_data();
    void replay();
};

void FuzzCorpusTest::replay_data()
{
    QTest::addColumn<EntryPoint>("entry");
    QTest::addColumn<QString>("file");
    const QList<QPair<QString, EntryPoint>> targets {
        {"filepathvalidator", replay_filepathvalidator_testOneInput},
        {"jsonstring", replay_jsonstring_testOneInput},
        {"minisign", replay_minisign_testOneInput},
        {"serverresponseparser", replay_serverresponseparser_testOneInput},
        {"settingsfile", replay_settingsfile_testOneInput},
        {"updateserverrequest", replay_updateserverrequest_testOneInput},
        {"variant", replay_variant_testOneInput},
        {"vxastring", replay_vxastring_testOneInput},
        {"vxversion", replay_vxversion_testOneInput},
    };
    for (const auto& target : targets) {
        const QDir corpus(QStringLiteral(FUZZ_CORPUS_DIR "/") + target.first);
        const QStringList files = corpus.entryList(QDir::Files, QDir::Name);
        // A target whose seeds went missing would pass without checking anything.
        QVERIFY2(!files.isEmpty(), qPrintable(corpus.path()));
        // No input at all is where libFuzzer starts, too.
        QTest::newRow(qPrintable(target.first + "/(empty)")) << target.second << QString();
        for (const QString& file : files)
            QTest::newRow(qPrintable(target.first + '/' + file)) << target.second << corpus.filePath(file);
    }
}

void FuzzCorpusTest::replay()
{
    QFETCH(EntryPoint, entry);
    QFETCH(QString, file);
    QByteArray bytes;
    if (!file.isEmpty()) {
        QFile in(file);
        QVERIFY2(in.open(QIODevice::ReadOnly), qPrintable(file));
        bytes = in.readAll();
    }
    // A buffer of exactly the input's size, as libFuzzer gives, so that a read past the end
    // is one under AddressSanitizer.
    const auto size = size_t(bytes.size());
    std::unique_ptr<uint8_t[]> data(new uint8_t[size ? size : 1]);
    std::memcpy(data.get(), bytes.constData(), size);
    QCOMPARE(entry(data.get(), size), 0);
}

QTEST_GUILESS_MAIN(FuzzCorpusTest)
#include "fuzzcorpustest.moc"
