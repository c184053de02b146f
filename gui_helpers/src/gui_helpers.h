// SPDX-License-Identifier: MIT
//
// The whole public interface of libgui_helpers: the types library, the support library
// and every exported class and function.
#pragma once

#include "gui_helpers_config.h"
#include "gui_helpers_export.h"

// Types library and support library
#include "journaller.h"
#include "lists.h"
#include "mathtypes.h"
#include "mutex.h"
#include "netmanager.h"
#include "settingsfile.h"
#include "variant.h"
#include "vxtypes.h"

// Exported classes and functions
#include "aboutbox.h"
#include "abstractusagestatisticssingleton.h"
#include "autoupdatable.h"
#include "autoupdate.h"
#include "autoupdatewindow.h"
#include "filepathvalidator.h"
#include "gridsplitter.h"
#include "serialports.h"
#include "timeconversions.h"
#include "tusuploader.h"
#include "updateservercomm.h"
#include "updateserverprotocol.h"
#include "updateserverresponseparser.h"
#include "usagedatadialog.h"
