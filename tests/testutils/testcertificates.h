// SPDX-License-Identifier: MIT
//
// Throwaway TLS material for tests: a certificate authority and a server certificate for
// localhost / 127.0.0.1 signed by it, made with the openssl command-line tool in a
// temporary directory that disappears with the object.
#pragma once

#include <QList>
#include <QSslCertificate>
#include <QSslKey>
#include <QString>
#include <QTemporaryDir>

class TestCertificates
{
public:
    TestCertificates();
    TestCertificates(const TestCertificates&) = delete;
    TestCertificates& operator=(const TestCertificates&) = delete;

    /**
     * Makes the CA and the server certificate (about a second). False, with the reason in
     * errorString(), when openssl is missing or fails.
     */
    bool create();

    QString caCertificatePath() const { return m_dir.filePath(QStringLiteral("ca.pem")); }
    QString serverCertificatePath() const { return m_dir.filePath(QStringLiteral("server.pem")); }
    QString serverKeyPath() const { return m_dir.filePath(QStringLiteral("server.key")); }

    QSslCertificate caCertificate() const;
    QSslCertificate serverCertificate() const;
    QSslKey serverKey() const;
    QString errorString() const { return m_error; }

private:
    /** Runs openssl in the directory with @p command's arguments (quoted as in a shell). */
    bool runOpenssl(const QString& command);

    QTemporaryDir m_dir;
    QString m_error;
};

/**
 * Adds @p ca to the CA certificates of Qt's default SSL configuration, for this process
 * only, so that peers signed by it verify with the toolkit's normal checks. Adding the
 * same certificate twice is harmless.
 */
void trustCertificateAuthority(const QSslCertificate& ca);
