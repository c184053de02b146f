// SPDX-License-Identifier: MIT
//
// A host application for the automatic-update tests, and list replies built the way the
// update server builds them.
#pragma once

#include "autoupdate.h"
#include "settingsfile.h"
#include "variant.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QSettings>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTest>

class TestHost : public AutoUpdatable
{
public:
    VxVersion current {1, 2, 0};
    QString product = QStringLiteral("TestProduct");
    int interval = 7;
    UpdateServerOptions options;
    int64_t licenseLimit = 0;
    Journaller* journal = nullptr;
    bool allowBeta = true;

    VxVersion currentVersion() const override { return current; }
    QString productName() const override { return product; }
    int updateCheckInterval() const override { return interval; }
    UpdateServerOptions updateServerOptions() const override { return options; }
    int64_t licenseDateLimit() const override { return licenseLimit; }
    Journaller* journaller() const override { return journal; }
    bool allowBetaVersions() const override { return allowBeta; }
};

/** One release as the server lists it; empty texts are left out of the reply. */
struct TestRelease {
    QString label;
    bool beta = false;
    QString releaseType;
    QString infoLabel;
    QString infoUrl;
    int64_t dateSeconds = 1600000000;
    QString url = QStringLiteral("http://127.0.0.1:1/setup.bin");
};

/** The list reply for @p releases of @p product, with an unrelated setting beside it. */
inline veltrax::SettingsFile listReply(const QString& product, const QList<TestRelease>& releases)
{
    veltrax::SettingsFile tree;
    tree.setSetting("server.name", veltrax::Variant("test"));
    for (const TestRelease& r : releases) {
        const std::string base = product.toStdString() + '.' + r.label.toStdString() + '.';
        tree.setSetting(base + "date", veltrax::Variant(static_cast<long>(r.dateSeconds)));
        tree.setSetting(base + "url", veltrax::Variant(r.url.toStdString()));
        tree.setSetting(base + "beta", veltrax::Variant(r.beta));
        const std::pair<const char*, QString> optional[] = {{"releasetype", r.releaseType}, {"infolabel", r.infoLabel}, {"infourl", r.infoUrl}};
        for (const auto& [key, value] : optional) {
            if (!value.isEmpty())
                tree.setSetting(base + key, veltrax::Variant(value.toStdString()));
        }
    }
    return tree;
}

/** Hands @p tree to the controller as if the server had answered a refresh. */
inline bool deliverListReply(AutoUpdate* autoUpdate, const veltrax::SettingsFile& tree)
{
    return QMetaObject::invokeMethod(autoUpdate, "handleListReply", Qt::DirectConnection, Q_ARG(veltrax::SettingsFile, tree));
}

/** A loopback port on which nothing listens, so connections are refused at once. */
inline quint16 closedLoopbackPort()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost);
    return probe.serverPort();
}

/** Settings of this test function (and data row) only, starting empty. */
inline void isolateSettings()
{
    QStandardPaths::setTestModeEnabled(true);
    QCoreApplication::setOrganizationName(QStringLiteral("gui_helpers-tests"));
    QString name = QFileInfo(QCoreApplication::applicationFilePath()).fileName() + QLatin1Char('-') + QLatin1String(QTest::currentTestFunction());
    if (const char* tag = QTest::currentDataTag())
        name += QLatin1Char('-') + QString::fromLatin1(tag).replace(QLatin1Char(' '), QLatin1Char('_'));
    QCoreApplication::setApplicationName(name);
    QSettings().clear();
}
