// SPDX-License-Identifier: MIT
//
// Throwaway TLS material for tests, in a temporary directory that disappears with the object.
#pragma once

#include "certificateauthority.h"

#include <QTemporaryDir>

class TestCertificates : public CertificateAuthority
{
public:
    /** Makes the CA and the server certificate; false, with errorString(), when openssl fails. */
    bool create() { return m_dir.isValid() && CertificateAuthority::create(m_dir.path()); }

private:
    QTemporaryDir m_dir;
};

/** Trusts @p ca in this process, as trustCertificateAuthorities() does. */
inline void trustCertificateAuthority(const QSslCertificate& ca)
{
    trustCertificateAuthorities(QList<QSslCertificate> {ca});
}
