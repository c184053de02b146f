// SPDX-License-Identifier: MIT
//
// Run-time binding to libudev. Not installed: the library's own use only (and its tests).
#pragma once

#include <memory>

struct VxLibraryLoader;

// libudev's opaque handles; declared here because libudev.h is not needed to build.
struct udev;
struct udev_device;
struct udev_enumerate;
struct udev_list_entry;

/**
 * libudev loaded at run time by the name "libudev.so", each entry point resolved by its name.
 *
 * Every member forwards to the entry point of the same name (without "udev_"). An entry
 * point that could not be resolved, or a library that could not be loaded, gives a null
 * result, or -1 for the two members returning int, so callers need no checks of their own.
 */
class Udev
{
public:
    Udev();
    ~Udev();
    Udev(const Udev&) = delete;
    Udev& operator=(const Udev&) = delete;

    /** Loads "libudev.so" unless something is loaded already, then resolves every entry point. */
    void initLibrary();
    /** Whether the library is loaded (its entry points may still be missing). */
    bool isLoaded() const;

    udev* unew();
    udev* unref(udev* context);
    udev_device* device_unref(udev_device* device);
    udev_enumerate* enumerate_new(udev* context);
    int enumerate_add_match_subsystem(udev_enumerate* enumerate, const char* subsystem);
    int enumerate_scan_devices(udev_enumerate* enumerate);
    udev_list_entry* enumerate_get_list_entry(udev_enumerate* enumerate);
    udev_enumerate* enumerate_unref(udev_enumerate* enumerate);
    udev_list_entry* list_entry_get_next(udev_list_entry* entry);
    const char* list_entry_get_name(udev_list_entry* entry);
    udev_device* device_new_from_syspath(udev* context, const char* syspath);
    udev_device* device_get_parent(udev_device* device);
    const char* device_get_devnode(udev_device* device);
    udev_device* device_get_parent_with_subsystem_devtype(udev_device* device, const char* subsystem, const char* devtype);
    const char* device_get_sysattr_value(udev_device* device, const char* sysattr);

private:
    std::unique_ptr<VxLibraryLoader> m_loader;

    udev* (*m_new)() = nullptr;
    udev* (*m_unref)(udev*) = nullptr;
    udev_device* (*m_device_unref)(udev_device*) = nullptr;
    udev_enumerate* (*m_enumerate_new)(udev*) = nullptr;
    int (*m_enumerate_add_match_subsystem)(udev_enumerate*, const char*) = nullptr;
    int (*m_enumerate_scan_devices)(udev_enumerate*) = nullptr;
    udev_list_entry* (*m_enumerate_get_list_entry)(udev_enumerate*) = nullptr;
    udev_enumerate* (*m_enumerate_unref)(udev_enumerate*) = nullptr;
    udev_list_entry* (*m_list_entry_get_next)(udev_list_entry*) = nullptr;
    const char* (*m_list_entry_get_name)(udev_list_entry*) = nullptr;
    udev_device* (*m_device_new_from_syspath)(udev*, const char*) = nullptr;
    udev_device* (*m_device_get_parent)(udev_device*) = nullptr;
    const char* (*m_device_get_devnode)(udev_device*) = nullptr;
    udev_device* (*m_device_get_parent_with_subsystem_devtype)(udev_device*, const char*, const char*) = nullptr;
    const char* (*m_device_get_sysattr_value)(udev_device*, const char*) = nullptr;
};
