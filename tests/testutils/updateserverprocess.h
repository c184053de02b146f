// SPDX-License-Identifier: MIT
//
// The reference update server for tests, with certificates they can share.
#pragma once

#include "referenceupdateserver.h"
#include "testcertificates.h"

using UpdateServerProcess = ReferenceUpdateServer;
