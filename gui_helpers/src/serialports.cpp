// SPDX-License-Identifier: MIT
#include "serialports.h"
#include "serialports_p.h"

#include "journaller.h"
#include "vxtypes.h"

#include <cstring>

namespace
{
template <typename Function> void resolve(VxLibraryLoader* loader, Function*& pointer, const char* name)
{
    pointer = reinterpret_cast<Function*>(VxLibraryLoader_resolve(loader, name));
    if (!pointer)
        JDEBUG("libudev lacks " << name);
}

// Device nodes this long or longer are not serial ports we could open anyway.
constexpr size_t maximumNodeLength = 256;
// A sane device tree has a few hundred tty devices; the bound only guards against a list
// that never ends.
constexpr int maximumEntries = 1 << 16;
} // namespace

Udev::Udev()
    : m_loader(new VxLibraryLoader)
{
    initLibrary();
}

Udev::~Udev()
{
    VxLibraryLoader_unload(m_loader.get());
}

void Udev::initLibrary()
{
    if (VxLibraryLoader_isLoaded(m_loader.get()))
        return;
    // The unversioned name is deliberate: it is the name packagers and VX_LIBRARY_PATH provide.
    if (!VxLibraryLoader_load(m_loader.get(), "libudev.so")) {
        JDEBUG("libudev.so not found; no serial ports will be listed");
        return;
    }
    VxLibraryLoader* loader = m_loader.get();
    resolve(loader, m_new, "udev_new");
    resolve(loader, m_unref, "udev_unref");
    resolve(loader, m_device_unref, "udev_device_unref");
    resolve(loader, m_enumerate_new, "udev_enumerate_new");
    resolve(loader, m_enumerate_add_match_subsystem, "udev_enumerate_add_match_subsystem");
    resolve(loader, m_enumerate_scan_devices, "udev_enumerate_scan_devices");
    resolve(loader, m_enumerate_get_list_entry, "udev_enumerate_get_list_entry");
    resolve(loader, m_enumerate_unref, "udev_enumerate_unref");
    resolve(loader, m_list_entry_get_next, "udev_list_entry_get_next");
    resolve(loader, m_list_entry_get_name, "udev_list_entry_get_name");
    resolve(loader, m_device_new_from_syspath, "udev_device_new_from_syspath");
    resolve(loader, m_device_get_parent, "udev_device_get_parent");
    resolve(loader, m_device_get_devnode, "udev_device_get_devnode");
    resolve(loader, m_device_get_parent_with_subsystem_devtype, "udev_device_get_parent_with_subsystem_devtype");
    resolve(loader, m_device_get_sysattr_value, "udev_device_get_sysattr_value");
}

bool Udev::isLoaded() const
{
    return VxLibraryLoader_isLoaded(m_loader.get());
}

udev* Udev::unew()
{
    return m_new ? m_new() : nullptr;
}

udev* Udev::unref(udev* context)
{
    return m_unref ? m_unref(context) : nullptr;
}

udev_device* Udev::device_unref(udev_device* device)
{
    return m_device_unref ? m_device_unref(device) : nullptr;
}

udev_enumerate* Udev::enumerate_new(udev* context)
{
    return m_enumerate_new ? m_enumerate_new(context) : nullptr;
}

int Udev::enumerate_add_match_subsystem(udev_enumerate* enumerate, const char* subsystem)
{
    return m_enumerate_add_match_subsystem ? m_enumerate_add_match_subsystem(enumerate, subsystem) : -1;
}

int Udev::enumerate_scan_devices(udev_enumerate* enumerate)
{
    return m_enumerate_scan_devices ? m_enumerate_scan_devices(enumerate) : -1;
}

udev_list_entry* Udev::enumerate_get_list_entry(udev_enumerate* enumerate)
{
    return m_enumerate_get_list_entry ? m_enumerate_get_list_entry(enumerate) : nullptr;
}

udev_enumerate* Udev::enumerate_unref(udev_enumerate* enumerate)
{
    return m_enumerate_unref ? m_enumerate_unref(enumerate) : nullptr;
}

udev_list_entry* Udev::list_entry_get_next(udev_list_entry* entry)
{
    return m_list_entry_get_next ? m_list_entry_get_next(entry) : nullptr;
}

const char* Udev::list_entry_get_name(udev_list_entry* entry)
{
    return m_list_entry_get_name ? m_list_entry_get_name(entry) : nullptr;
}

udev_device* Udev::device_new_from_syspath(udev* context, const char* syspath)
{
    return m_device_new_from_syspath ? m_device_new_from_syspath(context, syspath) : nullptr;
}

udev_device* Udev::device_get_parent(udev_device* device)
{
    return m_device_get_parent ? m_device_get_parent(device) : nullptr;
}

const char* Udev::device_get_devnode(udev_device* device)
{
    return m_device_get_devnode ? m_device_get_devnode(device) : nullptr;
}

udev_device* Udev::device_get_parent_with_subsystem_devtype(udev_device* device, const char* subsystem, const char* devtype)
{
    return m_device_get_parent_with_subsystem_devtype ? m_device_get_parent_with_subsystem_devtype(device, subsystem, devtype) : nullptr;
}

const char* Udev::device_get_sysattr_value(udev_device* device, const char* sysattr)
{
    return m_device_get_sysattr_value ? m_device_get_sysattr_value(device, sysattr) : nullptr;
}

QStringList qEnumerateSerialPorts()
{
    QStringList ports;
    Udev lib;
    udev* context = lib.unew();
    if (!context)
        return ports;

    udev_enumerate* enumerate = lib.enumerate_new(context);
    lib.enumerate_add_match_subsystem(enumerate, "tty");
    lib.enumerate_scan_devices(enumerate);
    udev_list_entry* entry = lib.enumerate_get_list_entry(enumerate);
    int seen = 0;
    for (; entry && seen < maximumEntries; entry = lib.list_entry_get_next(entry), ++seen) {
        const char* syspath = lib.list_entry_get_name(entry);
        udev_device* device = syspath ? lib.device_new_from_syspath(context, syspath) : nullptr;
        if (!device)
            continue;
        // Virtual terminals have no parent device; real ports (even USB adapters) do.
        if (lib.device_get_parent(device)) {
            if (const char* node = lib.device_get_devnode(device)) {
                // strnlen: never read past the limit, whatever the library hands back.
                const size_t length = strnlen(node, maximumNodeLength);
                if (length < maximumNodeLength)
                    ports.append(QString::fromLatin1(node, int(length)));
            }
        }
        lib.device_unref(device);
    }
    if (entry)
        JALERT("stopped after " << maximumEntries << " tty devices");
    lib.enumerate_unref(enumerate);
    lib.unref(context);

    ports.sort(Qt::CaseSensitive);
    return ports;
}

QString comPortDisplayName(const QString& port)
{
    return port;
}
