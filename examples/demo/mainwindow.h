// SPDX-License-Identifier: MIT
//
// The demo's main window: one pane per part of the library, in a grid the user can resize.
#pragma once

#include <QMainWindow>
#include <QPointer>
#include <QString>

class AboutBox;
class AutoUpdate;
class AutoUpdateWindow;
class DemoHost;
class DemoServices;
class DemoUsageStatistics;
class GridSplitter;
class JournalView;
class QCheckBox;
class UsageDataDialog;
class QLabel;
class QListWidget;
class QProgressBar;
class QPushButton;
class QValidator;
class TusUploader;

/** Everything the windows of the demo share; owned by main(). */
struct DemoContext {
    DemoUsageStatistics* usage = nullptr;
    DemoServices* services = nullptr;
    DemoHost* host = nullptr;
    AutoUpdate* autoUpdate = nullptr;
    /** Where the journal file is. */
    QString journalPath;
    /** Settings and data live in a directory that goes away at exit. */
    bool throwawayProfile = false;
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
    /** A new update window on the shared controller, wired to the host (the caller owns it). */
    AutoUpdateWindow* createUpdateWindow(QWidget* parent);
    /** The dialog of what the usage statistics send; the usage pane refreshes when it closes. */
    UsageDataDialog* createUsageDataDialog(QWidget* parent);
    /** The demo's logo, drawn rather than shipped as a file. */
    static QPixmap logo(int size);

    /** The two demo devices whose firmware is asked for. */
    static QList<quint64> demoDeviceIds();

public Q_SLOTS:
    void showAboutBox();
    void showUpdateWindow();
    /** Asks the update server for the releases and the demo devices' firmware. */
    void checkForUpdates();
    /** Uploads @p path to the tus endpoint; false when an upload is still running or the file is missing. */
    bool uploadFile(const QString& path);
    /** Writes a sample recording (3 MiB) to the cache directory and uploads it. */
    void uploadSample();
    /** Hands the finished usage logs to the update server (at most once a day, with consent). */
    void sendUsageData();
    /** Grants or withdraws the user's consent to usage statistics; keeps every check box in step. */
    void setUsageConsent(bool allow);
    void refreshUsageState();
    /** Shows the firmware versions that the controller stored in the settings. */
    void refreshFirmware();

Q_SIGNALS:
    void usageConsentChanged(bool allow);
    void uploadEnded(bool success, const QString& message);

private:
    QWidget* createUpdatesPane();
    QWidget* createUploadPane();
    QWidget* createUsagePane();
    QWidget* createValidationPane();
    QWidget* createSerialPortsPane();
    QWidget* createJournalPane();
    void showVersions();
    void showUpdateFailure();
    void refreshSerialPorts();
    void chooseAndUploadFile();
    void automaticUpdateCheck();

    DemoContext& m_context;
    GridSplitter* m_splitter = nullptr;
    QPointer<AboutBox> m_aboutBox;
    QPointer<AutoUpdateWindow> m_updateWindow;
    TusUploader* m_uploader = nullptr;
    QLabel* m_updateStateLabel = nullptr;
    QLabel* m_firmwareLabel = nullptr;
    QLabel* m_uploadStateLabel = nullptr;
    QProgressBar* m_uploadProgress = nullptr;
    QPushButton* m_uploadButton = nullptr;
    QPushButton* m_sampleButton = nullptr;
    QPushButton* m_cancelUploadButton = nullptr;
    QCheckBox* m_consentCheckBox = nullptr;
    QLabel* m_usageLogLabel = nullptr;
    QLabel* m_usageStateLabel = nullptr;
    QListWidget* m_serialPorts = nullptr;
    JournalView* m_journalView = nullptr;
    bool m_automaticCheck = false;
};
