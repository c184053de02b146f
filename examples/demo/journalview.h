// SPDX-License-Identifier: MIT
//
// Shows the journal's lines in the main window as they are written.
#pragma once

#include <QPlainTextEdit>

/**
 * The last journal lines. It receives them through the journal's additional logger, which
 * any thread may call; lines reach the widget queued, on the GUI thread. Only one view is
 * attached at a time.
 */
class JournalView : public QPlainTextEdit
{
    Q_OBJECT
public:
    explicit JournalView(QWidget* parent = nullptr);
    ~JournalView() override;

    /** Installs the forwarding logger (once per process). Lines written while no view exists (the last 200) go to the next view. */
    static void installForwarder();
    /** Removes the forwarding logger again; call before the journal goes. */
    static void removeForwarder();
};
