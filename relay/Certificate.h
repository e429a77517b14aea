// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_CERTIFICATE_H
#define VORNRELAY_CERTIFICATE_H

#include <memory>
#include <string>

#include <openssl/x509.h>

namespace VornRelay {

/** A certificate, read from a PEM file. */
class Certificate {
public:
    /** @throws std::runtime_error when the file has none */
    explicit Certificate(const std::string& sPath);

    /** @return whole days until it expires; negative when it has expired. */
    int daysLeft() const;

    /** @return whether it is for a host of that name. */
    bool hasName(const std::string& sName) const;

private:
    std::unique_ptr<X509, decltype(&X509_free)> m_spCertificate{nullptr, &X509_free};
};

} // namespace VornRelay

#endif
