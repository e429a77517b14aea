// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "LeakCheckedTest.h"

#include <VornCertificate.h>
#include <gtest/gtest.h>

using namespace VornTest;
using VornNet::VornCertificate;
using VornSupport::VornString;

namespace {

class VornCertificateTest : public LeakCheckedTest {};

class Probe : public VornCertificate {
public:
    using VornCertificate::m_keyType;
    using VornCertificate::m_type;
    using VornCertificate::VornCertificate;
};

} // namespace

TEST_F(VornCertificateTest, ReturnsThePathsUnchanged) {
    const VornString odd("key \xFF\0 file", 11);
    VornCertificate certificate("/no/such/file.pem", "PEM", odd, "DER");
    EXPECT_EQ(certificate.getFile(), "/no/such/file.pem");
    EXPECT_EQ(certificate.getKeyFile(), odd);
}

TEST_F(VornCertificateTest, WithAnyTypeTexts_BothTypesAreZero) {
    for (const VornString text : {"", "PEM", "DER", "ASN1", "1", "no type at all"}) {
        VornCertificate certificate("file", text, "key", text);
        EXPECT_EQ(certificate.getType(), 0) << text;
        EXPECT_EQ(certificate.getKeyType(), 0) << text;
        EXPECT_EQ(VornCertificate::toType(text), 0) << text;
    }
}

TEST_F(VornCertificateTest, TheGetters_ReturnTheFieldsThemselves) {
    Probe certificate("file", "PEM", "key", "PEM");
    certificate.m_type = 3;
    certificate.m_keyType = 4;
    EXPECT_EQ(certificate.getType(), 3);
    EXPECT_EQ(certificate.getKeyType(), 4);
    EXPECT_EQ(&certificate.getFile(), &certificate.getFile());
    EXPECT_EQ(&certificate.getKeyFile(), &certificate.getKeyFile());
}

TEST_F(VornCertificateTest, ACopyAndAnAssignedOne_HaveEveryFieldAndAreIndependent) {
    Probe original("file", "PEM", "key", "PEM");
    original.m_type = 3;
    original.m_keyType = 4;
    Probe copy(original);
    Probe assigned("", "", "", "");
    assigned = original;
    for (Probe* each : {&copy, &assigned}) {
        EXPECT_EQ(each->getFile(), "file");
        EXPECT_EQ(each->getType(), 3);
        EXPECT_EQ(each->getKeyFile(), "key");
        EXPECT_EQ(each->getKeyType(), 4);
    }
    copy = Probe("other", "", "other key", "");
    EXPECT_EQ(original.getFile(), "file");
    EXPECT_EQ(original.getKeyFile(), "key");
}

TEST_F(VornCertificateTest, AssignmentToItself_ChangesNothing) {
    VornCertificate certificate("a path that is too long to be kept inside the text object itself", "PEM",
                                "another path that is too long to be kept inside the text object", "PEM");
    const VornCertificate& same = certificate;
    const char* bytes = certificate.getFile().data();
    certificate = same;
    EXPECT_EQ(static_cast<const void*>(certificate.getFile().data()), bytes);
    EXPECT_EQ(certificate.getFile(), "a path that is too long to be kept inside the text object itself");
    EXPECT_EQ(certificate.getKeyFile(), "another path that is too long to be kept inside the text object");
}
