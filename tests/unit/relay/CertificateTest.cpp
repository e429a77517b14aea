// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include <Certificate.h>

#include <cstdio>

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

using VornRelay::Certificate;

namespace {

/** Writes a certificate that expires after a time, and gives its path. @param sName such as "DNS:north" */
std::string certificateFile(const std::string& sName, long nSecondsLeft, const std::string& sSubject = {}) {
    const std::string sPath = testing::TempDir() + "certificate-" + std::to_string(nSecondsLeft) + ".pem";
    EVP_PKEY* key = EVP_EC_gen("P-256");
    X509* certificate = X509_new();
    X509_gmtime_adj(X509_getm_notBefore(certificate), -7L * 24 * 3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate), nSecondsLeft);
    X509_set_pubkey(certificate, key);
    X509_EXTENSION* names = X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name, sName.c_str());
    X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(sSubject.c_str()), -1, -1, 0);
    X509_add_ext(certificate, names, -1);
    X509_sign(certificate, key, EVP_sha256());
    std::FILE* file = std::fopen(sPath.c_str(), "we");
    PEM_write_X509(file, certificate);
    std::fclose(file);
    X509_EXTENSION_free(names);
    X509_free(certificate);
    EVP_PKEY_free(key);
    return sPath;
}

} // namespace

TEST(CertificateTest, DaysLeft_AreWholeOnes_AndNegativeAfterTheEnd) {
    constexpr long cDay = 24L * 3600;
    EXPECT_EQ(Certificate(certificateFile("DNS:north", 3 * cDay + 3600)).daysLeft(), 3);
    EXPECT_EQ(Certificate(certificateFile("DNS:north", 3600)).daysLeft(), 0);
    EXPECT_LT(Certificate(certificateFile("DNS:north", 0)).daysLeft(), 0);
    EXPECT_LT(Certificate(certificateFile("DNS:north", -3600)).daysLeft(), 0);
    EXPECT_LT(Certificate(certificateFile("DNS:north", -2 * cDay)).daysLeft(), 0);
}

TEST(CertificateTest, Name_IsTheDnsNameOrTheTokenMadeOfIt) {
    EXPECT_TRUE(Certificate(certificateFile("DNS:north", 3601)).hasName("north"));
    EXPECT_FALSE(Certificate(certificateFile("DNS:north", 3602)).hasName("south"));
    EXPECT_TRUE(Certificate(certificateFile("DNS:north.example", 3603)).hasName("north_example"));
    EXPECT_FALSE(Certificate(certificateFile("IP:127.0.0.1", 3604, "north")).hasName("north"));
    EXPECT_FALSE(Certificate(certificateFile("DNS:*.example.com", 3605)).hasName("north_example_com"));
}

TEST(CertificateTest, FileWithoutACertificate_IsRefused) {
    EXPECT_THROW(Certificate("/nowhere.pem"), std::runtime_error);
    EXPECT_THROW(Certificate("/dev/null"), std::runtime_error);
}
