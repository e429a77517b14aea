// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Certificate.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include <openssl/pem.h>
#include <openssl/x509v3.h>

namespace VornRelay {

Certificate::Certificate(const std::string& sPath) {
    const std::unique_ptr<std::FILE, decltype(&std::fclose)> spFile(std::fopen(sPath.c_str(), "re"),
                                                                    &std::fclose);
    if (!spFile)
        throw std::runtime_error("the certificate " + sPath + ": " + std::strerror(errno));
    m_spCertificate.reset(PEM_read_X509(spFile.get(), nullptr, nullptr, nullptr));
    if (!m_spCertificate)
        throw std::runtime_error("the certificate " + sPath + " is none");
}

int Certificate::daysLeft() const {
    int nDays = 0;
    int nSeconds = 0;
    ASN1_TIME_diff(&nDays, &nSeconds, nullptr, X509_get0_notAfter(m_spCertificate.get()));
    return nDays > 0 || nSeconds > 0 ? nDays : -1;
}

/** Dots of a host's name have become '_' in its token. */
bool Certificate::hasName(const std::string& sName) const {
    std::string sDotted = sName;
    for (char& c : sDotted)
        c = c == '_' ? '.' : c;
    // The engine compares DNS names letter by letter, and takes no part of the subject for one.
    constexpr unsigned int cAsTheEngine = X509_CHECK_FLAG_NEVER_CHECK_SUBJECT | X509_CHECK_FLAG_NO_WILDCARDS;
    return X509_check_host(m_spCertificate.get(), sName.data(), sName.size(), cAsTheEngine, nullptr) == 1 ||
           X509_check_host(m_spCertificate.get(), sDotted.data(), sDotted.size(), cAsTheEngine, nullptr) == 1;
}

} // namespace VornRelay
