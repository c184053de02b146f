// SPDX-License-Identifier: MIT
//
// What the update controller, its download path and the update window share; not part of
// the interface.
#pragma once

#include "autoupdate.h"
#include "downloadfile_p.h"
#include "gui_helpers_export.h"
#include "minisign_p.h"
#include "vxtypes.h"

#include <QDateTime>
#include <QProgressDialog>
#include <QString>
#include <QTimer>
#include <QUrl>
#include <QVector>

#include <memory>

class AutoUpdate;

namespace autoupdate_p
{
inline QString updateCheckGroup()
{
    return QStringLiteral("UpdateCheck");
}

inline QString acceptBetaKey()
{
    return QStringLiteral("AcceptBeta");
}

inline QString lastCheckKey()
{
    return QStringLiteral("LastCheck");
}

inline QString skippedVersionKey()
{
    return QStringLiteral("SkippedVersion");
}

/**
 * The clock that automatic checks read; null restores the system clock. Lets tests move
 * time by days without waiting.
 */
GUI_HELPERS_EXPORT void setClock(AutoUpdate& autoUpdate, QDateTime (*clock)());
/** Makes the decision that the check timer makes when it fires, now. */
GUI_HELPERS_EXPORT void decideAutomaticCheck(AutoUpdate& autoUpdate);
/** The check timer's interval in milliseconds; -1 when it is not running. */
GUI_HELPERS_EXPORT int msecsToNextDecision(const AutoUpdate& autoUpdate);

/** Orders by major, minor and revision only; build and extra text never count. */
inline int compareVersions(const VxVersion& a, const VxVersion& b)
{
    if (a.major() != b.major())
        return a.major() < b.major() ? -1 : 1;
    if (a.minor() != b.minor())
        return a.minor() < b.minor() ? -1 : 1;
    if (a.revision() != b.revision())
        return a.revision() < b.revision() ? -1 : 1;
    return 0;
}
} // namespace autoupdate_p

// One installer download from updateToVersion() to installerSaved() or downloadFailed().
struct InstallerDownload {
    AutoUpdate::Version version;
    QUrl url;
    QNetworkReply* signatureReply = nullptr;
    // Declared in the order they need each other: the file feeds the digest, the digest the verifier.
    std::unique_ptr<minisign::Verifier> verifier;
    std::unique_ptr<DownloadDigest> digest;
    std::unique_ptr<DownloadFile> file;
    QTimer retryTimer;
    int retriesDone = 0;
    // Bytes in the file before the current response started.
    qint64 offset = 0;
    // What the current response is to deliver; -1 when unknown.
    qint64 expected = -1;
    bool responseChecked = false;
    bool responseWritten = false;
    // ETag or Last-Modified of the first answer, sent as If-Range when resuming.
    QByteArray validator;
    // Set when we stop the transfer ourselves; an abort without it is the user's.
    QString failure;
    bool showFailure = false;
};

class AutoUpdatePrivate
{
public:
    explicit AutoUpdatePrivate(AutoUpdatable* host)
        : host(host)
    {
    }

    void saveDownload(QNetworkReply* reply);
    void showFailure(const QString& text) const;

    void fetchSignature();
    void signatureFinished(QNetworkReply* reply);
    void sendInstallerRequest();
    void receive();
    bool scheduleRetry();
    void retry();
    void closeProgressDialog();
    void endDownload(const QString& savedPath, const QString& failure, bool showBox = false);
    void failVerification(const QString& why);
    void abandonDownload(const QString& why);

    AutoUpdate* q = nullptr;
    static AutoUpdatePrivate* get(const AutoUpdate& q) { return q.d.get(); }
    QDateTime now() const { return clock ? clock() : QDateTime::currentDateTimeUtc(); }
    void decideAutomaticCheck(AutoUpdate* q);
    void automaticCheckAnswered(AutoUpdate* q);

    AutoUpdatable* const host;
    veltrax::NetManager netManager;
    QProgressDialog* progressDialog = nullptr;
    QNetworkReply* reply = nullptr;
    bool allowMessageBoxes = false;
    UpdateServerComm* comm = nullptr;
    Journaller* journaller = nullptr;
    QList<AutoUpdate::Version> versions;
    QList<VxString> firmwareKeys;

    QVector<minisign::PublicKey> trustedKeys;
    // Set by any key given, valid or not: a mistyped key must not switch the check off.
    bool requireSignature = false;
    QString downloadFolder;
    int downloadRetries = 0;
    std::unique_ptr<InstallerDownload> download;
    // Automatic checks.
    QTimer checkTimer;
    QDateTime (*clock)() = nullptr;
    bool automaticChecks = false;
    bool automaticCheckRunning = false;
    // Attempts count, failed ones too: an unreachable server is not asked again within the interval.
    QDateTime lastAttempt;
    bool lastListAccepted = false;
};
