// SPDX-License-Identifier: MIT
//
// Throwaway TLS material: a certificate authority and a server certificate signed by it,
// made at run time and trusted by this process only.
#pragma once

#include <QList>
#include <QSslCertificate>
#include <QSslKey>
#include <QString>

/**
 * A certificate authority and a server certificate for localhost / 127.0.0.1 signed by it,
 * made with the openssl command-line tool (EC P-256 keys, valid for two days) in a
 * directory of the caller's choice. The CA's private key never leaves that directory, and
 * nothing trusts the CA until trustCertificateAuthorities() is called, so servers using
 * the certificate are verified with the toolkit's normal checks.
 */
class CertificateAuthority
{
public:
    /**
     * Makes the files in @p directory (created when missing), the CA with the subject
     * @p caSubject ("/CN=..."). False with the reason in errorString().
     */
    bool create(const QString& directory, const QString& caSubject = QStringLiteral("/CN=Test CA"));

    QString caCertificatePath() const { return m_dir + QStringLiteral("/ca.pem"); }
    QString serverCertificatePath() const { return m_dir + QStringLiteral("/server.pem"); }
    QString serverKeyPath() const { return m_dir + QStringLiteral("/server.key"); }
    QSslCertificate caCertificate() const;
    QSslCertificate serverCertificate() const;
    QSslKey serverKey() const;
    QString errorString() const { return m_error; }

private:
    bool runOpenssl(const QStringList& arguments);

    QString m_dir;
    QString m_error;
};

/**
 * Adds @p cas to the CA certificates of this process's default SSL configuration; those it
 * holds already are not added twice. Verification stays on: peers must still present a
 * valid chain for the host they were asked for.
 */
void trustCertificateAuthorities(const QList<QSslCertificate>& cas);
/** The same with the certificates in the PEM file @p path; false when it holds none. */
bool trustCertificateAuthorities(const QString& path, QString* error = nullptr);
