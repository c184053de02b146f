// SPDX-License-Identifier: MIT
//
// What a host application tells the automatic-update code about itself.
#pragma once

#include "gui_helpers_export.h"
#include "journaller.h"
#include "updateservercomm.h"
#include "vxtypes.h"

#include <QString>

#include <cstdint>

/**
 * What the host application tells the automatic-update code about itself. The host
 * implements it; the library only calls it, and never takes ownership.
 *
 * The order of the virtual functions is part of the binary interface and must not change.
 * reserved1() and reserved2() hold two slots that this library never calls; a host need
 * not implement them.
 */
class GUI_HELPERS_EXPORT AutoUpdatable
{
public:
    virtual ~AutoUpdatable();

    /** Never called by this library. */
    virtual void reserved1();
    /** Version of the running application; only major, minor and revision count. */
    virtual VxVersion currentVersion() const = 0;
    /** Never called by this library. */
    virtual void reserved2();
    /** Product key: the id sent with the LIST request and the name of the reply subtree. */
    virtual QString productName() const = 0;
    /** Automatic-check interval in days; 0 means automatic checking is off. */
    virtual int updateCheckInterval() const = 0;
    /** Where the update server is; read once when an AutoUpdate is constructed. */
    virtual UpdateServerOptions updateServerOptions() const = 0;
    /**
     * Newest release date (milliseconds since the epoch) that the user's licence covers.
     * Releases dated later are marked in the update window as not allowed by the licence.
     * 0 or a negative value means the licence sets no limit.
     */
    virtual int64_t licenseDateLimit() const = 0;
    /** Where the controller logs; may be null. */
    virtual Journaller* journaller() const = 0;
    /** Whether the host offers beta releases at all. */
    virtual bool allowBetaVersions() const = 0;
};
