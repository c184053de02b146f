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

    // The forwarders are used, and so covered, by the enumeration above; here every one the
    // enumeration needs after udev_new is missing (the partial stand-in exports only
    // udev_new and udev_unref), and none of them may be called through a null pointer.
    void missingEntryPointsGiveNoPorts()
    {
        const auto path = libraryPath(QByteArrayLiteral(UDEV_STANDIN_PARTIAL_DIR));
        QVERIFY(Udev().isLoaded());
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
