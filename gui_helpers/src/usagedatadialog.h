// SPDX-License-Identifier: MIT
//
// What the usage statistics would send, shown to the user before it is sent.
#pragma once

#include "gui_helpers_export.h"

#include <QDialog>

#include <memory>

class AbstractUsageStatisticsSingleton;
class UsageDataDialogPrivate;

/**
 * Shows the logs the next usage sending would carry, each by name with its full text
 * read-only, the copies already sent (see AbstractUsageStatisticsSingleton::setKeepSentLogs())
 * under "Already sent", the consent check box with the about box's text, and the day the
 * server last accepted data. "Delete collected data" removes every log of the application
 * except the one being written, whatever "DeleteLogFiles" says: the user asked for it.
 *
 * Under the organisation's policy (AbstractUsageStatisticsSingleton::disabledByPolicy()) the
 * check box is unchecked and disabled, with a tooltip saying so. The object name is
 * "UsageDataDialog"; the dialog reads the files when created and after each change it
 * makes, and on refresh().
 */
class GUI_HELPERS_EXPORT UsageDataDialog : public QDialog
{
    Q_OBJECT
    Q_DISABLE_COPY(UsageDataDialog)
public:
    /** Shows the data of @p usage, or of AbstractUsageStatisticsSingleton::instance() when null. */
    explicit UsageDataDialog(AbstractUsageStatisticsSingleton* usage = nullptr, QWidget* parent = nullptr);
    ~UsageDataDialog() override;

public Q_SLOTS:
    /** Reads the logs, consent and last sending anew. */
    void refresh();

private:
    std::unique_ptr<UsageDataDialogPrivate> const d;
};
