// SPDX-License-Identifier: MIT
//
// Runs with VX_LIBRARY_PATH naming the directory of the stand-in "libudev.so" (udevstandin.c),
// whose fixed device table covers sorting, the parent rule and the length limit.
#include "serialports.h"
#include "serialports_p.h"
#include "vxtypes.h"

#include <QScopeGuard>
#include <QTest>

namespace
{
/** Sets VX_LIBRARY_PATH (unsets it for a null @p value) until the returned guard goes. */
auto libraryPath(const QByteArray& value)
{
    const bool wasSet = qEnvironmentVariableIsSet("VX_LIBRARY_PATH");
    const QByteArray saved = qgetenv("VX_LIBRARY_PATH");
    value.isNull() ? qunsetenv("VX_LIBRARY_PATH") : qputenv("VX_LIBRARY_PATH", value);
    return qScopeGuard([wasSet, saved] {
        wasSet ? qputenv("VX_LIBRARY_PATH", saved) : qunsetenv("VX_LIBRARY_PATH");
    });
}
} // namespace

class SerialPortsTest : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase()
    {
        m_standinDir = qgetenv("VX_LIBRARY_PATH");
        QVERIFY2(!m_standinDir.isEmpty(), "run through ctest: VX_LIBRARY_PATH must name the stand-in's directory");
        // Our own handle keeps the stand-in loaded between Udev objects, so its counter lives on.
        QVERIFY(VxLibraryLoader_load(&m_standin, "libudev.so"));
        m_liveObjects = reinterpret_cast<int (*)()>(VxLibraryLoader_resolve(&m_standin, "udev_standin_live_objects"));
        QVERIFY2(m_liveObjects, "the loader did not pick the stand-in first");
    }
    void cleanupTestCase() { VxLibraryLoader_unload(&m_standin); }

    void portsAreFilteredAndSortedCaseSensitively()
    {
        const QStringList expected {
            QStringLiteral("/dev/ttyS0"),
            QStringLiteral("/dev/ttyUSB10"),
            QStringLiteral("/dev/ttyUSB2"),
            QStringLiteral("/dev/ttyacm0"),
            QStringLiteral("/dev/tty") + QChar(0xE9),
            QStringLiteral("/dev/") + QString(250, QLatin1Char('x')),
        };
        QCOMPARE(qEnumerateSerialPorts(), expected);
        // Left out: tty1 (no parent), the 256-byte node, a device that cannot be created and
        // one without a node. Every context, enumeration and device was released.
        QCOMPARE(m_liveObjects(), 0);
    }

    void everyEntryPointIsResolvedByName()
    {
        Udev lib;
        QVERIFY(lib.isLoaded());
        udev* context = lib.unew();
        QVERIFY(context);
        udev_enumerate* enumerate = lib.enumerate_new(context);
        QVERIFY(enumerate);
        QCOMPARE(lib.enumerate_add_match_subsystem(enumerate, "tty"), 0);
        QCOMPARE(lib.enumerate_scan_devices(enumerate), 0);
        udev_list_entry* entry = lib.enumerate_get_list_entry(enumerate);
        QVERIFY(entry);
        QCOMPARE(lib.list_entry_get_name(entry), "/sys/devices/pnp0/00:04/tty/ttyS0");
        QVERIFY(lib.list_entry_get_next(entry));
        udev_device* device = lib.device_new_from_syspath(context, lib.list_entry_get_name(entry));
        QVERIFY(device);
        QCOMPARE(lib.device_get_devnode(device), "/dev/ttyS0");
        QVERIFY(lib.device_get_parent(device));
        QCOMPARE(lib.device_get_parent_with_subsystem_devtype(device, "usb", "usb_device"), lib.device_get_parent(device));
        QCOMPARE(lib.device_get_sysattr_value(device, "product"), "Stand-in port");
        QCOMPARE(m_liveObjects(), 3);
        QVERIFY(!lib.device_unref(device));
        QVERIFY(!lib.enumerate_unref(enumerate));
        QVERIFY(!lib.unref(context));
        QCOMPARE(m_liveObjects(), 0);
    }

    // The partial stand-in exports only udev_new and udev_unref.
    void missingEntryPointsGiveNullResults()
    {
        const auto path = libraryPath(QByteArrayLiteral(UDEV_STANDIN_PARTIAL_DIR));
        Udev lib;
        QVERIFY(lib.isLoaded());
        udev* context = lib.unew();
        QVERIFY(context);
        auto* fakeEnumerate = reinterpret_cast<udev_enumerate*>(context);
        auto* fakeDevice = reinterpret_cast<udev_device*>(context);
        auto* fakeEntry = reinterpret_cast<udev_list_entry*>(context);
        QVERIFY(!lib.enumerate_new(context));
        QCOMPARE(lib.enumerate_add_match_subsystem(fakeEnumerate, "tty"), -1);
        QCOMPARE(lib.enumerate_scan_devices(fakeEnumerate), -1);
        QVERIFY(!lib.enumerate_get_list_entry(fakeEnumerate));
        QVERIFY(!lib.enumerate_unref(fakeEnumerate));
        QVERIFY(!lib.list_entry_get_next(fakeEntry));
        QVERIFY(!lib.list_entry_get_name(fakeEntry));
        QVERIFY(!lib.device_new_from_syspath(context, "/sys"));
        QVERIFY(!lib.device_get_parent(fakeDevice));
        QVERIFY(!lib.device_get_devnode(fakeDevice));
        QVERIFY(!lib.device_get_parent_with_subsystem_devtype(fakeDevice, "usb", nullptr));
        QVERIFY(!lib.device_get_sysattr_value(fakeDevice, "product"));
        QVERIFY(!lib.device_unref(fakeDevice));
        QVERIFY(!lib.unref(context));

        QCOMPARE(qEnumerateSerialPorts(), QStringList());
    }

    // Whatever this machine has (no libudev.so at all without libudev-dev), nothing fails.
    void machinesOwnLibudevDoesNotFail()
    {
        const auto path = libraryPath(QByteArray());
        const bool loaded = Udev().isLoaded();
        const QStringList ports = qEnumerateSerialPorts();
        qInfo("system libudev.so %s; %d serial port(s): %s", loaded ? "loaded" : "not found", int(ports.size()), qPrintable(ports.join(QLatin1Char(' '))));
        if (!loaded)
            QVERIFY(ports.isEmpty());
        QStringList sorted = ports;
        sorted.sort(Qt::CaseSensitive);
        QCOMPARE(ports, sorted);
        for (const QString& port : ports) {
            QVERIFY2(port.startsWith(QLatin1String("/dev/")), qPrintable(port));
            QVERIFY(port.toLatin1().size() < 256);
        }
    }

private:
    QByteArray m_standinDir;
    VxLibraryLoader m_standin;
    int (*m_liveObjects)() = nullptr;
};

QTEST_GUILESS_MAIN(SerialPortsTest)
#include "serialportstest.moc"
