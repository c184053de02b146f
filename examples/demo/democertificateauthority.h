// SPDX-License-Identifier: MIT
//
// The demo's own certificate authority, made at run time, trusted by this process only.
#pragma once

#include <QSslCertificate>
#include <QString>
#include <QStringList>

/**
 * A certificate authority and a server certificate for 127.0.0.1 / localhost signed by it,
 * made with the openssl command-line tool (EC P-256 keys, valid for two days) in a
 * directory of the caller's choice. The CA's private key never leaves that directory, and
 * only this process trusts the CA (trustInThisProcess()), so the embedded update server is
 * verified with the toolkit's normal checks while nothing else on the machine trusts it.
 */
class DemoCertificateAuthority
{
public:
    /** Makes the files in @p directory (created when missing). False with the reason in errorString(). */
    bool create(const QString& directory);

    QString caCertificatePath() const { return m_dir + QStringLiteral("/demo-ca.pem"); }
    QString serverCertificatePath() const { return m_dir + QStringLiteral("/server.pem"); }
    QString serverKeyPath() const { return m_dir + QStringLiteral("/server.key"); }
    QString errorString() const { return m_error; }

    /**
     * Adds the certificate authorities in the PEM file @p path to the CA list of this
     * process's default SSL configuration. Verification stays on: peers must still present
     * a valid chain for the host they were asked for. False when the file holds none.
     */
    static bool trustInThisProcess(const QString& path, QString* error = nullptr);

private:
    bool runOpenssl(const QStringList& arguments);

    QString m_dir;
    QString m_error;
};
