// SPDX-License-Identifier: MIT
#include "vxtypes.h"

#include <QTemporaryDir>
#include <QTest>

#include <cstring>
#include <utility>

class VxTypesTest : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void byteArrayViewDoesNotCopyUntilWritten()
    {
        const char source[] = "abcdef";
        VxByteArray v = VxByteArray::view(source, 6);
        QVERIFY(v.isView());
        QCOMPARE(static_cast<const void*>(std::as_const(v).data()), static_cast<const void*>(source));
        v.append("gh", 2);
        QVERIFY(!v.isView());
        QCOMPARE(QByteArray(v.data(), int(v.size())), QByteArray("abcdefgh"));
        QCOMPARE(QByteArray(source), QByteArray("abcdef"));
    }

    void byteArrayAppendGrowsByDoubling()
    {
        VxByteArray a;
        size_t reallocations = 0;
        size_t capacity = a.capacity();
        for (int i = 0; i < 100000; ++i) {
            a.append(char(i));
            if (a.capacity() != capacity) {
                ++reallocations;
                capacity = a.capacity();
            }
        }
        QCOMPARE(a.size(), size_t(100000));
        QVERIFY2(reallocations < 20, "appends must grow geometrically");
        QCOMPARE(a[99999], char(99999 & 0xFF));
    }

    void byteArraySelfAppendIsSafe()
    {
        VxByteArray a("xyz", 3);
        for (int i = 0; i < 6; ++i)
            a.append(a.data(), a.size());
        QCOMPARE(a.size(), size_t(3 << 6));
        QCOMPARE(std::memcmp(a.data() + a.size() - 3, "xyz", 3), 0);
    }

    void versionFromString_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QList<int>>("version"); // major, minor, revision
        QTest::newRow("plain") << "2021.0.2" << QList<int> {2021, 0, 2};
        QTest::newRow("two parts") << "1.2" << QList<int> {0, 0, 0};
        QTest::newRow("four parts") << "1.2.3.4" << QList<int> {0, 0, 0};
        QTest::newRow("letters") << "1.x.3" << QList<int> {0, 0, 0};
        QTest::newRow("blank") << " 1.2.3" << QList<int> {0, 0, 0};
        QTest::newRow("empty") << "" << QList<int> {0, 0, 0};
        QTest::newRow("overflow") << "1.99999999999.3" << QList<int> {0, 0, 0};
    }
    void versionFromString()
    {
        QFETCH(QString, text);
        const VxVersion v = VxVersion::fromString(text.toStdString());
        QTEST((QList<int> {v.major(), v.minor(), v.revision()}), "version");
    }

    void deviceIdForms()
    {
        const VxDeviceId legacy(0x0330A1B2u);
        QVERIFY(legacy.isLegacyDeviceId());
        QCOMPARE(QString::fromStdString(legacy.toString()), QStringLiteral("0330A1B2"));
        QCOMPARE(legacy.deviceType(true).toInt(), quint64(0x03300000u));
        QCOMPARE(QString::fromStdString(legacy.deviceTypeMask(true).toString()), QStringLiteral("FFF00000"));

        const VxDeviceId modern(0x0123456700000042ull);
        QVERIFY(!modern.isLegacyDeviceId());
        QCOMPARE(QString::fromStdString(modern.toDeviceTypeString(true)), QStringLiteral("M-0123456700000000"));
        QCOMPARE(QString::fromStdString(modern.toDeviceTypeString(false)), QStringLiteral("M-0123000000000000"));
    }

    void fileOpenTextKeepsContentAndCreateTextEmpties()
    {
        QTemporaryDir dir;
        const std::string name = dir.filePath(QStringLiteral("a.log")).toStdString();
        QVERIFY(!VxFile_openText(name).isOpen()); // does not create
        {
            VxFile f = VxFile_createText(name);
            QVERIFY(f.write("one\n"));
        }
        {
            VxFile f = VxFile_openText(name);
            QVERIFY(f.isOpen());
            QVERIFY(f.write("two\n"));
        }
        QFile check(QString::fromStdString(name));
        QVERIFY(check.open(QIODevice::ReadOnly));
        QCOMPARE(check.readAll(), QByteArray("one\ntwo\n"));
        check.close();
        {
            VxFile f = VxFile_createText(name);
        }
        QCOMPARE(QFileInfo(QString::fromStdString(name)).size(), qint64(0));
        QVERIFY(!VxFile_createText(dir.filePath(QStringLiteral("no/such/dir/x.log")).toStdString()).isOpen());
    }

    void libraryLoaderResolvesAndFailsCleanly()
    {
        VxLibraryLoader loader;
        QVERIFY(!VxLibraryLoader_load(&loader, "libdoes-not-exist.so.42"));
        QVERIFY(!VxLibraryLoader_isLoaded(&loader));
        QVERIFY(!VxLibraryLoader_resolve(&loader, "strlen"));
        QVERIFY(VxLibraryLoader_load(&loader, "libc.so.6"));
        QVERIFY(VxLibraryLoader_resolve(&loader, "strlen"));
        QVERIFY(!VxLibraryLoader_resolve(&loader, "no_such_symbol_here"));
        VxLibraryLoader_unload(&loader);
        QVERIFY(!VxLibraryLoader_isLoaded(&loader));
    }

    void exceptionCarriesResultAndText()
    {
        const VxException e(VXRV_NOTFOUND, "Setting a.b not found");
        QCOMPARE(QByteArray(static_cast<const std::exception&>(e).what()), QByteArray("Setting a.b not found"));
        QCOMPARE(e.resultValue(), VXRV_NOTFOUND);
        QCOMPARE(int(VXRV_INSUFFICIENTDATA), 41);
        QCOMPARE(int(VXRV_NOTFOUND), 262);
        QCOMPARE(int(VXRV_DATAOVERFLOW), 278);
    }
};

QTEST_GUILESS_MAIN(VxTypesTest)
#include "vxtypestest.moc"
