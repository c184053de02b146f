// SPDX-License-Identifier: MIT
//
// The dialog that lists the releases offered by the update server.
#pragma once

#include "gui_helpers_export.h"

#include <QDialog>
#include <QMap>
#include <QString>

#include <memory>

class AutoUpdatable;
class AutoUpdate;
class AutoUpdateWindowPrivate;

/**
 * The dialog that lists the releases offered by the update server, lets the user download
 * one and set the automatic-check options. It does not store the options: it reports them
 * with betaChanged() and updateIntervalChanged(), and the host keeps them.
 */
class GUI_HELPERS_EXPORT AutoUpdateWindow : public QDialog
{
    Q_OBJECT
    Q_DISABLE_COPY(AutoUpdateWindow)

public:
    /**
     * Uses @p autoUpdate when given, else creates a controller of its own. Shows the
     * releases at once when the controller already has some, else asks it to refresh.
     */
    explicit AutoUpdateWindow(AutoUpdatable* host, AutoUpdate* autoUpdate = nullptr, QWidget* parent = nullptr, Qt::WindowFlags flags = {});
    ~AutoUpdateWindow() override;

    /** Text shown below the table when a new version is available. */
    void setNewVersionText(const QString& text);

    /** Column number to header text of the version table; filled on first construction. */
    static QMap<int, QString> colMap;

Q_SIGNALS:
    /** The user switched reporting of beta releases on or off. */
    void betaChanged(bool accept);
    /** New automatic-check interval in days; 0 when automatic checking was switched off. */
    void updateIntervalChanged(int days);

public Q_SLOTS:
    /** Rebuilds the table from the controller's releases. */
    void updateVersionTable();
    /** Shows that the releases could not be fetched, naming the server. */
    void reportUpdateFailure();
    /** Downloads the selected release. */
    void doUpdate();
    /** Enables the download button when a row is selected and the table is shown. */
    void selectionChanged();
    /** Reports the interval controls' state with updateIntervalChanged(). */
    void intervalChanged();

private:
    std::unique_ptr<AutoUpdateWindowPrivate> const d;
};
