// SPDX-License-Identifier: MIT
//
// The demo's main window: one pane per part of the library, in a grid the user can resize.
#pragma once

#include <QMainWindow>
#include <QPointer>
#include <QString>

class AboutBox;
class DemoUsageStatistics;
class JournalView;
class GridSplitter;
class QCheckBox;
class QLabel;
class QLineEdit;
class QListWidget;
class QValidator;

/** Everything the windows of the demo share; owned by main(). */
struct DemoContext {
    DemoUsageStatistics* usage = nullptr;
    /** Where the journal file is. */
    QString journalPath;
};

/** The main window. */
class MainWindow : public QMainWindow
{
    Q_OBJECT
public:
    explicit MainWindow(DemoContext& context, QWidget* parent = nullptr);
    ~MainWindow() override;

    /** A new about box filled the way a suite application fills it (the caller owns it). */
    AboutBox* createAboutBox(QWidget* parent);
    /** The demo's logo, drawn rather than shipped as a file. */
    static QPixmap logo(int size);

public Q_SLOTS:
    void showAboutBox();
    /** Grants or withdraws the user's consent to usage statistics; keeps every check box in step. */
    void setUsageConsent(bool allow);

Q_SIGNALS:
    void usageConsentChanged(bool allow);

private:
    QWidget* createUsagePane();
    QWidget* createValidationPane();
    QWidget* createSerialPortsPane();
    QWidget* createJournalPane();
    void refreshUsageState();
    void refreshSerialPorts();

    DemoContext& m_context;
    GridSplitter* m_splitter = nullptr;
    QPointer<AboutBox> m_aboutBox;
    QCheckBox* m_consentCheckBox = nullptr;
    QLabel* m_usageLogLabel = nullptr;
    QLabel* m_usageStateLabel = nullptr;
    QListWidget* m_serialPorts = nullptr;
    JournalView* m_journalView = nullptr;
};
