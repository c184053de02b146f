// SPDX-License-Identifier: MIT
//
// Running update-server requests from tests: start one on its own thread, wait (bounded)
// for its reply on the test's thread, and compare settings trees.
#pragma once

#include "settingsfile.h"
#include "updateservercomm.h"

#include <QObject>
#include <QString>

#include <initializer_list>
#include <string>
#include <utility>

/** Starts @p request and keeps its reply, which arrives queued on the calling thread. */
class PendingReply : public QObject
{
    Q_OBJECT
public:
    explicit PendingReply(ServerRequest* request);

    /** Runs events until the reply is there or @p timeoutMs ran out; true when it is there. */
    bool wait(int timeoutMs = 15000);
    bool received() const { return m_received; }
    const veltrax::SettingsFile& tree() const { return m_tree; }

private:
    bool m_received = false;
    veltrax::SettingsFile m_tree;
};

/**
 * Runs one request of type @p Request to its reply. Without a reply in time the result is
 * a tree saying so, which no expected tree (an empty one included) matches.
 */
template <typename Request, typename... Args> veltrax::SettingsFile runRequest(UpdateServerComm& comm, const Args&... args)
{
    PendingReply pending(new Request(comm, args...));
    if (pending.wait())
        return pending.tree();
    veltrax::SettingsFile none;
    none.setSetting("test.noReply", veltrax::Variant("no reply in time"));
    return none;
}

/** A tree of text settings, in the order given. */
veltrax::SettingsFile textTree(std::initializer_list<std::pair<std::string, std::string>> settings);

/** Empty when @p actual and @p expected hold the same settings; else where they differ. */
QString treeDifference(const veltrax::SettingsFile& actual, const veltrax::SettingsFile& expected);
