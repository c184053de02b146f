// SPDX-License-Identifier: MIT
//
// The machine's serial ports, read from the device manager (libudev) at run time.
#pragma once

#include "gui_helpers_export.h"

#include <QString>
#include <QStringList>

/**
 * The device nodes of the machine's serial ports ("/dev/ttyS0", "/dev/ttyUSB0", ...), sorted
 * by plain, case-sensitive text comparison (so "/dev/ttyUSB10" comes before "/dev/ttyUSB2").
 *
 * Only tty devices that have a parent device count, which leaves out the virtual terminals;
 * nodes of 256 bytes or more are left out too.
 *
 * libudev is loaded at run time by the unversioned name "libudev.so", first from the
 * directories in the environment variable VX_LIBRARY_PATH, then through the system's library
 * search. When it cannot be loaded the list is empty and nothing fails. On Debian-like
 * systems "libudev.so" is a symbolic link that only the development package (libudev-dev)
 * installs; the runtime package has "libudev.so.1" alone. Where the development package is
 * not installed, ship a "libudev.so" link to "libudev.so.1" in a directory named in
 * VX_LIBRARY_PATH, or the list stays empty.
 */
GUI_HELPERS_EXPORT QStringList qEnumerateSerialPorts();

/** The name to show for @p port: the device node itself on this platform. */
GUI_HELPERS_EXPORT QString comPortDisplayName(const QString& port);
