// SPDX-License-Identifier: MIT
//
// A host application for the automatic-update tests, list replies built the way the update
// server builds them, and a user who answers the dialogs the controller shows.
#pragma once

#include "autoupdate.h"
#include "settingsfile.h"
#include "testhelpers.h"
#include "variant.h"

#include <QApplication>
#include <QFileDialog>
#include <QMessageBox>
#include <QTimer>

class TestHost : public AutoUpdatable
{
public:
    VxVersion current {1, 2, 0};
    QString product = QStringLiteral("TestProduct");
    int interval = 7;
    // Nobody listens there: whatever the controller asks the server fails at once.
    UpdateServerOptions options {QStringLiteral("127.0.0.1"), closedLoopbackPort()};
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
    // Braces: rows may leave the rest out without a missing-initializer warning.
    QString releaseType {};
    QString infoLabel {};
    QString infoUrl {};
    int64_t dateSeconds = 1600000000;
    QString url = QStringLiteral("http://127.0.0.1:1/setup.bin");
};

/** Releases from short forms: "v1_3_0", or "v1_3_0 beta". */
inline QList<TestRelease> releases(const QStringList& shortForms)
{
    QList<TestRelease> list;
    for (const QString& entry : shortForms)
        list.append({entry.section(QLatin1Char(' '), 0, 0), entry.endsWith(QLatin1String(" beta"))});
    return list;
}

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

/** Watches for the folder dialog and message boxes and answers them like a user. */
class DialogAnswerer
{
public:
    explicit DialogAnswerer(const QString& chosenFolder)
        : folder(chosenFolder)
    {
        QObject::connect(&m_timer, &QTimer::timeout, [this] {
            look();
        });
        m_timer.start(10);
    }

    QString folder; // chosen in the folder dialog; empty: the user cancels it
    QStringList folderDialogs; // their titles
    QStringList messages; // "title|text" of each message box

private:
    void look()
    {
        for (QWidget* widget : QApplication::topLevelWidgets()) {
            if (!widget->isVisible())
                continue;
            if (auto* dialog = qobject_cast<QFileDialog*>(widget)) {
                folderDialogs.append(dialog->windowTitle() + (dialog->testOption(QFileDialog::ShowDirsOnly) ? "" : " (files shown too)"));
                dialog->setDirectory(folder);
                folder.isEmpty() ? dialog->reject() : static_cast<QDialog*>(dialog)->accept();
            } else if (auto* box = qobject_cast<QMessageBox*>(widget)) {
                const bool expectedKind = box->icon() == QMessageBox::Critical && box->standardButtons() == QMessageBox::Cancel;
                messages.append(box->windowTitle() + QLatin1Char('|') + box->text() + (expectedKind ? "" : " (not a critical box with Cancel)"));
                box->reject();
            }
        }
    }

    QTimer m_timer;
};
