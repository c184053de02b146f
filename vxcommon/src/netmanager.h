// SPDX-License-Identifier: MIT
//
// A counted handle on the one QNetworkAccessManager that the whole process shares.
#pragma once

#include "vxcommon_export.h"

class QNetworkAccessManager;

namespace veltrax
{

/**
 * Handle on the process-wide QNetworkAccessManager.
 *
 * Every live handle holds one reference. The first handle creates the access manager
 * (without parent, in the thread that creates the handle); the last one to go deletes it,
 * together with any replies still parented to it. Keep at least one handle alive for as
 * long as you use the manager or its replies, and create and destroy handles in the thread
 * the manager lives in (normally the GUI thread), as Qt requires of the manager itself.
 *
 * Copying a handle takes another reference; assigning one handle to another changes nothing,
 * since both already hold one.
 */
class VXCOMMON_EXPORT NetManager
{
public:
    NetManager();
    NetManager(const NetManager& other);
    NetManager& operator=(const NetManager& other);
    ~NetManager();

    QNetworkAccessManager* operator->() const;
    /** The shared access manager; never null while this handle lives. */
    QNetworkAccessManager* qman() const;

    /** Number of live handles in the process. */
    static int referenceCount();
};

} // namespace veltrax
