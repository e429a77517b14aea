// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "VornCertificate.h"

namespace VornNet {

VornCertificate::VornCertificate(const VornString& sFile, const VornString& sType, const VornString& sKeyFile,
                                 const VornString& sKeyType)
    : m_sFile(sFile), m_type(toType(sType)), m_sKeyFile(sKeyFile), m_keyType(toType(sKeyType)) {}

VornCertificate::VornCertificate(const VornCertificate& source) = default;

VornCertificate& VornCertificate::operator=(const VornCertificate& source) {
    if (this == &source)
        return *this;
    VornCertificate copy(source); // what can fail comes first
    m_sFile.swap(copy.m_sFile);
    m_type = copy.m_type;
    m_sKeyFile.swap(copy.m_sKeyFile);
    m_keyType = copy.m_keyType;
    return *this;
}

VornCertificate::~VornCertificate() = default;

const VornString& VornCertificate::getFile() {
    return m_sFile;
}

VornCertificate::Type VornCertificate::getType() {
    return m_type;
}

const VornString& VornCertificate::getKeyFile() {
    return m_sKeyFile;
}

VornCertificate::Type VornCertificate::getKeyType() {
    return m_keyType;
}

VornCertificate::Type VornCertificate::toType(const VornString& /*sType*/) {
    return 0;
}

} // namespace VornNet
