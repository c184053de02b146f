// SPDX-License-Identifier: MIT
//
// What the demo tells the automatic-update code about itself.
#pragma once

#include "autoupdate.h"

#include <QObject>

/**
 * The demo's answers to AutoUpdatable, as a suite application gives them: its product key
 * and running version, where its update server is, and the automatic-check choices that the
 * update window reports and the host stores (QSettings group "Demo").
 */
class DemoHost : public QObject, public AutoUpdatable
{
    Q_OBJECT
public:
    /** Product key sent with the LIST request; also the subtree of the reply that lists the releases. */
    static QString productKey();
    /** The version this demo pretends to be. */
    static VxVersion runningVersion();

    explicit DemoHost(const UpdateServerOptions& options, QObject* parent = nullptr);

    VxVersion currentVersion() const override;
    QString productName() const override;
    int updateCheckInterval() const override;
    UpdateServerOptions updateServerOptions() const override;
    /** The demo's "licence" covers releases up to the end of 2021, so the 2022 beta is marked. */
    int64_t licenseDateLimit() const override;
    Journaller* journaller() const override;
    bool allowBetaVersions() const override;

public Q_SLOTS:
    /** Stores the interval from the update window (0: automatic checking off). */
    void setUpdateCheckInterval(int days);
    /** Stores the beta choice from the update window where the library reads it ("UpdateCheck/AcceptBeta"). */
    void setAcceptBeta(bool accept);

private:
    UpdateServerOptions m_options;
};
