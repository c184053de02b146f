// SPDX-License-Identifier: MIT
//
// Automatic updates: the controller that asks the update server for releases and firmware
// and downloads installers. The host's interface (autoupdatable.h) and the dialog that
// lists the releases (autoupdatewindow.h) come with it.
#pragma once

#include "autoupdatable.h"
#include "autoupdatewindow.h"
#include "gui_helpers_export.h"
#include "journaller.h"
#include "netmanager.h"
#include "settingsfile.h"
#include "updateservercomm.h"
#include "vxtypes.h"

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>

#include <memory>

class QNetworkReply;
class AutoUpdatePrivate;

/**
 * The non-visual controller of automatic updates.
 *
 * refresh() asks the update server for the product's releases and reports the outcome with
 * versionsUpdated() or failedToGetVersions(); versions() then holds them sorted by their
 * internal labels. requestFirmwareVersion() asks for the newest firmware of a device and
 * stores the answer in the application settings (group "firmwareVersions"), where the host
 * reads it. updateToVersion() downloads a release's installer into a folder that the user
 * picks. Lives on the GUI thread.
 *
 * Automatic checks: startAutomaticChecks() runs refresh() whenever the host's
 * updateCheckInterval() says a check is due, and reports a newer release once with
 * newVersionAvailable(), unless the user skipped it with skipVersion(). The last successful
 * automatic check is remembered in the application settings ("UpdateCheck/LastCheck", an
 * ISO 8601 UTC date-time), so that a restart does not check again before it is due.
 *
 * Release lists: the reply tree holds a subtree named after productName() with one subtree
 * per release (its internal label) holding "date" (seconds), "url", "beta" and optionally
 * "releasetype", "infolabel", "infourl", "size", "sha256" and "signatureurl". A malformed
 * release (optional settings included) is logged and skipped; a product subtree without
 * releases is a valid, empty answer.
 */
class GUI_HELPERS_EXPORT AutoUpdate : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY(AutoUpdate)

public:
    /** One release offered by the update server. */
    struct Version {
        /** The server's label, e.g. v2021_0_2. */
        QString internalVersion;
        /** The label users see, e.g. 2021.0.2. */
        QString publicVersion;
        /** Release moment in milliseconds since the epoch. */
        qint64 date = 0;
        /** Where the installer is downloaded from. */
        QString url;
        bool beta = false;
        /** Translated "Stable", "Beta", "Patch", or the server's own word. */
        QString releaseType;
        /** Text of the "More information" link; empty when there is none. */
        QString infoLabel;
        /** Address the link opens; empty when there is none. */
        QString infoUrl;
        /** The installer's size in bytes from the optional setting "size"; -1 when not given. */
        qint64 size = -1;
        /** SHA-256 of the installer from the optional setting "sha256", lower-case hex; empty when not given. */
        QByteArray sha256;
        /** Where the installer's .minisig file is (optional setting "signatureurl"); empty: url + ".minisig". */
        QString signatureUrl;

        /**
         * Text order of the internal labels (v1_10_0 before v1_9_0). This is the order of
         * versions(); it is deliberately not numeric.
         */
        bool operator<(const Version& other) const { return internalVersion < other.internalVersion; }
    };

    /**
     * Creates the server connection from @p host's options; sends nothing yet. @p host must
     * not be null and must outlive this object.
     */
    explicit AutoUpdate(AutoUpdatable* host, QObject* parent = nullptr);
    /** Ends running server requests and any download before the connection goes. */
    ~AutoUpdate() override;

    /** The releases of the last successful list reply, in text order of their labels. */
    QList<Version> versions() const;

    /**
     * True when the list holds a stable release newer than the running version, or a newer
     * beta release while the setting "UpdateCheck/AcceptBeta" is true. Only major, minor
     * and revision are compared. Writes "AcceptBeta" back so that the key always exists.
     */
    bool isNewVersionAvailable() const;

    /**
     * Asks the server for the firmware of @p id's device type (LIST for legacy ids, LIST2
     * for modern ones). Every reply refreshes the settings of all device keys requested so
     * far: group "firmwareVersions", key = the device-type text, value = public label of
     * the first listed label in byte order (case-sensitive, as strcmp has it).
     */
    void requestFirmwareVersion(const VxDeviceId& id);
    /**
     * The device keys asked for so far, each once, in the order of their first request: the
     * keys under which the firmware versions are stored. A legacy id's key is the text of
     * its device type ("03300000"), a modern id's its device-type text ("M-0012000300000000").
     */
    QStringList firmwareKeys() const;

    /** Lets download failures be shown in message boxes (off by default). */
    void setAllowMessageBoxes(bool allow);
    /** "address:port" of the update server. */
    QString serverString() const;
    /** Makes waiting server requests give up, then waits 120 ms for their threads. */
    void terminate();

    /**
     * The newest release by display order among those the user is offered: stable ones, and
     * beta ones too while "UpdateCheck/AcceptBeta" is true. An empty record when there is
     * none. Whether it is newer than the running version is not considered.
     */
    Version newestVersion() const;

    /**
     * Starts checking by itself: at once when the last successful automatic check is older
     * than updateCheckInterval() days (or there was none), then whenever that becomes true
     * while the application runs. The interval is read anew at every decision, so a changed
     * interval counts once the host returns it; 0 checks nothing. At most one check runs at a
     * time, and no attempt, failed ones included, follows the previous one within the
     * interval: a wrong clock or a machine waking from sleep causes one check, not a burst.
     * A stored last check that lies in the future counts as due.
     */
    void startAutomaticChecks();
    /** Stops the automatic checks; a check already sent still reports its outcome. */
    void stopAutomaticChecks();
    /**
     * Stores @p internalVersion as "UpdateCheck/SkippedVersion": automatic checks no longer
     * report that release or older ones, but a newer one. An empty text forgets the skip.
     * refresh() and the update window are not affected.
     */
    void skipVersion(const QString& internalVersion);

    /** "v<major>_<minor>_<revision>"; build and extra text are dropped. */
    static QString toInternalVersion(const VxVersion& version);
    /** Reads "v<major>_<minor>_<revision>" (the whole label); anything else gives 0.0.0. */
    static VxVersion fromInternalVersion(const QString& label);
    /**
     * Display order: numeric by major, minor and revision of the internal labels. Labels
     * that are not well formed count as 0.0.0.
     */
    static bool displayLessThan(const Version& a, const Version& b);

public Q_SLOTS:
    /** Asks the server for the product's releases. */
    void refresh();
    /**
     * Downloads the installer of the release labelled @p intName and saves it in a folder
     * that the user chooses. Returns false, doing nothing, when the label is unknown or the
     * release has no url. @p host is ignored; the host given at construction counts.
     *
     * Failures are shown in message boxes when allowed: an HTTP 404 as "Update file not
     * found", any other HTTP status as "Server returned ...", and a failure without an HTTP
     * answer (refused connection, unknown host, TLS) with the network error's text. Qt
     * reports HTTP error statuses as network errors too; they count as HTTP answers here.
     * Redirects are followed, never from https down to http. The saved file is named after
     * the last component of the URL's decoded path; the query string is not part of it.
     */
    bool updateToVersion(const QString& intName, AutoUpdatable* host);

public:
    /**
     * Minisign public keys (the base64 line, or the whole .pub text) that installers must be
     * signed with; keys that do not parse are logged and left out (when none is left, no
     * signature is accepted, so every download is refused). With at least one key, a
     * download is kept only when its signature file (the release's signatureUrl, else its url
     * + ".minisig") is signed by one of them over the downloaded bytes, its trusted comment's
     * signature holds and the comment's "file:" field, when there is one, names the installer.
     * An empty list (the default) checks no signature.
     */
    void setTrustedUpdateKeys(const QStringList& publicKeys);
    /**
     * Saves installers into @p folder without asking the user; an empty text (the default)
     * asks with a folder dialog after each download.
     */
    void setDownloadFolder(const QString& folder);
    /**
     * How often a download that lost its connection (no HTTP answer, or fewer bytes than
     * announced) is resumed, after 1, 2, 4 ... seconds (at most 30), with a Range request
     * bound to the first answer's ETag or Last-Modified by If-Range. 0 (the default): the
     * first such failure ends the download.
     */
    void setDownloadRetries(int count);

Q_SIGNALS:
    void versionsUpdated();
    void failedToGetVersions();
    /** A download started by updateToVersion() was checked and saved as @p filePath. */
    void installerSaved(const QString& filePath);
    /**
     * A download started by updateToVersion() ended without a saved file: HTTP or network
     * error, failed size, hash or signature check, file not writable, or cancelled by the
     * user. Exactly one of installerSaved() and this comes for every started download.
     */
    void downloadFailed(const QString& reason);
    /**
     * After an automatic check that found isNewVersionAvailable() true: @p newest is
     * newestVersion(). Not emitted when that release was skipped (see skipVersion()).
     */
    void newVersionAvailable(const AutoUpdate::Version& newest);
    /**
     * Emitted right before failedToGetVersions(): the message of the connection's error
     * reply (a refused connection, a certificate error, the server's ERROR text), "empty
     * reply", or "no readable release" when every listed release was malformed.
     */
    void versionCheckFailed(const QString& reason);

private Q_SLOTS:
    void handleListReply(const veltrax::SettingsFile& settings);
    void handleFirmwareListReply(const veltrax::SettingsFile& settings);
    void replyFinished(QNetworkReply* reply);
    void abortDownload();
    void updateDownloadProgress(qint64 received, qint64 total);

private:
    friend class AutoUpdatePrivate;
    std::unique_ptr<AutoUpdatePrivate> const d;
};

Q_DECLARE_METATYPE(AutoUpdate::Version)
