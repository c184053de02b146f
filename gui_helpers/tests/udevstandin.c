/* SPDX-License-Identifier: MIT */
/*
 * A stand-in "libudev.so" for the serial-port tests: the udev entry points the library
 * resolves, over a fixed table of tty devices. Built twice: in full, and with
 * UDEV_STANDIN_PARTIAL, which exports only udev_new and udev_unref so that the caller's
 * handling of missing entry points shows.
 *
 * udev_enumerate_get_list_entry() gives nothing unless the enumeration was restricted to
 * "tty" and scanned, and udev_standin_live_objects() counts what was created and not yet
 * released, so that the tests see both steps and every release.
 */
#include <stdlib.h>
#include <string.h>

#define STANDIN_EXPORT __attribute__((visibility("default")))

struct udev {
    int unused;
};

static int liveObjects;

STANDIN_EXPORT int udev_standin_live_objects(void)
{
    return liveObjects;
}

STANDIN_EXPORT struct udev* udev_new(void)
{
    ++liveObjects;
    return calloc(1, sizeof(struct udev));
}

STANDIN_EXPORT struct udev* udev_unref(struct udev* context)
{
    if (context) {
        --liveObjects;
        free(context);
    }
    return NULL;
}

#ifndef UDEV_STANDIN_PARTIAL

struct udev_list_entry {
    const char* name;
    struct udev_list_entry* next;
};

struct udev_enumerate {
    int matchedTty;
    int scanned;
};

struct udev_device {
    int index;
};

enum Parent { NoParent, HasParent, NotCreated };

struct Device {
    const char* syspath;
    const char* devnode;
    enum Parent parent;
};

/* 255 and 256 bytes long. */
#define LONG_NODE_255                                                                                                                                          \
    "/dev/"                                                                                                                                                    \
    "xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx" \
    "xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx"
#define LONG_NODE_256                                                                                                                                          \
    "/dev/"                                                                                                                                                    \
    "yyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyy" \
    "yyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyy"

static const struct Device devices[] = {
    {"/sys/devices/pnp0/00:04/tty/ttyS0", "/dev/ttyS0", HasParent},
    {"/sys/devices/virtual/tty/tty1", "/dev/tty1", NoParent},
    {"/sys/devices/usb1/1-1/ttyUSB10", "/dev/ttyUSB10", HasParent},
    {"/sys/devices/usb1/1-2/ttyUSB2", "/dev/ttyUSB2", HasParent},
    {"/sys/devices/usb1/1-3/tty/ttyacm0", "/dev/ttyacm0", HasParent},
    {"/sys/devices/long/255", LONG_NODE_255, HasParent},
    {"/sys/devices/long/256", LONG_NODE_256, HasParent},
    {"/sys/devices/gone", "/dev/gone", NotCreated},
    {"/sys/devices/nonode", NULL, HasParent},
    {"/sys/devices/latin1", "/dev/tty\xe9", HasParent},
};
#define DEVICE_COUNT (sizeof(devices) / sizeof(devices[0]))

static struct udev_list_entry entries[DEVICE_COUNT];
static struct udev_device parentDevice = {-1};

STANDIN_EXPORT struct udev_enumerate* udev_enumerate_new(struct udev* context)
{
    if (!context)
        return NULL;
    ++liveObjects;
    return calloc(1, sizeof(struct udev_enumerate));
}

STANDIN_EXPORT int udev_enumerate_add_match_subsystem(struct udev_enumerate* enumerate, const char* subsystem)
{
    if (!enumerate || !subsystem)
        return -22;
    enumerate->matchedTty = strcmp(subsystem, "tty") == 0;
    return 0;
}

STANDIN_EXPORT int udev_enumerate_scan_devices(struct udev_enumerate* enumerate)
{
    if (!enumerate)
        return -22;
    enumerate->scanned = 1;
    return 0;
}

STANDIN_EXPORT struct udev_list_entry* udev_enumerate_get_list_entry(struct udev_enumerate* enumerate)
{
    if (!enumerate || !enumerate->matchedTty || !enumerate->scanned)
        return NULL;
    for (size_t i = 0; i < DEVICE_COUNT; ++i) {
        entries[i].name = devices[i].syspath;
        entries[i].next = i + 1 < DEVICE_COUNT ? &entries[i + 1] : NULL;
    }
    return &entries[0];
}

STANDIN_EXPORT struct udev_enumerate* udev_enumerate_unref(struct udev_enumerate* enumerate)
{
    if (enumerate) {
        --liveObjects;
        free(enumerate);
    }
    return NULL;
}

STANDIN_EXPORT struct udev_list_entry* udev_list_entry_get_next(struct udev_list_entry* entry)
{
    return entry ? entry->next : NULL;
}

STANDIN_EXPORT const char* udev_list_entry_get_name(struct udev_list_entry* entry)
{
    return entry ? entry->name : NULL;
}

STANDIN_EXPORT struct udev_device* udev_device_new_from_syspath(struct udev* context, const char* syspath)
{
    if (!context || !syspath)
        return NULL;
    for (size_t i = 0; i < DEVICE_COUNT; ++i) {
        if (strcmp(devices[i].syspath, syspath) == 0 && devices[i].parent != NotCreated) {
            struct udev_device* device = calloc(1, sizeof(struct udev_device));
            if (device) {
                ++liveObjects;
                device->index = (int)i;
            }
            return device;
        }
    }
    return NULL;
}

STANDIN_EXPORT struct udev_device* udev_device_unref(struct udev_device* device)
{
    if (device && device != &parentDevice) {
        --liveObjects;
        free(device);
    }
    return NULL;
}

/* The parent belongs to its child, as in libudev: callers do not release it. */
STANDIN_EXPORT struct udev_device* udev_device_get_parent(struct udev_device* device)
{
    if (!device || device->index < 0)
        return NULL;
    return devices[device->index].parent == HasParent ? &parentDevice : NULL;
}

STANDIN_EXPORT const char* udev_device_get_devnode(struct udev_device* device)
{
    if (!device || device->index < 0)
        return NULL;
    return devices[device->index].devnode;
}

#endif /* UDEV_STANDIN_PARTIAL */
