#include "unit/ordak/CertificateGeneratorFixture.h"

#include <gmock/gmock.h>

namespace agent::ordak {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

TEST_F(CertificateGeneratorTest, StoresKeyCertificateAndAuthority) {
    generate();
    EXPECT_NE(commonKey(content("server.key"), content("server.pem")), "");
    EXPECT_EQ(content("ca.crt"), service.authority.pem());
    EXPECT_EQ(modeOf("server.key"), 0600U);
    EXPECT_EQ(modeOf("server.pem"), 0644U);
    EXPECT_EQ(modeOf("ca.crt"), 0644U);
    EXPECT_THAT(dir::list(certificatesDirectory()),
                testing::UnorderedElementsAre("server.key", "server.pem", "ca.crt"));
    EXPECT_THAT(record.lines(), IsEmpty());
}

TEST_F(CertificateGeneratorTest, KeyIsRSAOf2048Bits) {
    generate();
    unsigned bits = 0;
    const test::X509Key key = test::importKey(content("server.key"));
    EXPECT_EQ(gnutls_x509_privkey_get_pk_algorithm2(key.get(), &bits), GNUTLS_PK_RSA);
    EXPECT_EQ(bits, 2048U);
}

TEST_F(CertificateGeneratorTest, AsksForTheCertificateFirstThenForTheAuthority) {
    generate();
    EXPECT_THAT(service.actions, ElementsAre("issueCert", "retrieveCaCert"));
    json issue = service.requests.at(0);
    EXPECT_THAT(std::string(issue.at("certificateRequest")),
                StartsWith("-----BEGIN CERTIFICATE REQUEST-----\n"));
    issue.erase("certificateRequest");
    EXPECT_EQ(issue, json::parse(R"({"caId": "bek", "caVersion": 1, "action": "issueCert",
                                     "key": "the agent's word"})"));
    EXPECT_EQ(service.requests.at(1),
              json::parse(R"({"caId": "bek", "caVersion": 1, "action": "retrieveCaCert"})"));
    EXPECT_TRUE(issue.at("caVersion").is_number_integer());
}

TEST_F(CertificateGeneratorTest, RequestCarriesTheStandardMarkers) {
    generate();
    const std::string pem = service.requests.at(0).at("certificateRequest");
    EXPECT_THAT(pem, StartsWith("-----BEGIN CERTIFICATE REQUEST-----\n"));
    EXPECT_THAT(pem, testing::EndsWith("-----END CERTIFICATE REQUEST-----\n"));
    EXPECT_THAT(pem, Not(HasSubstr("NEW CERTIFICATE")));
}

TEST_F(CertificateGeneratorTest, RequestNamesTheHostBehindItsOrganization) {
    generate();
    const test::X509Request request = test::importRequest(service.requests.at(0).at("certificateRequest"));
    std::vector<std::string> parts;
    for (unsigned index = 0; index < 7; ++index) {
        std::array<char, 128> identifier{};
        std::size_t size = identifier.size();
        if (gnutls_x509_crq_get_dn_oid(request.get(), index, identifier.data(), &size) < 0) {
            break;
        }
        std::array<char, 128> value{};
        std::size_t length = value.size();
        test::requireGnuTls(
            gnutls_x509_crq_get_dn_by_oid(request.get(), identifier.data(), 0, 0, value.data(), &length));
        parts.push_back(std::string(identifier.data()) + "=" + value.data());
    }
    EXPECT_THAT(parts, ElementsAre("2.5.4.6=US", "2.5.4.8=Ostavia", "2.5.4.7=Brellin", "2.5.4.10=Tolvu",
                                   "2.5.4.11=Device-Agent CA", "2.5.4.3=backup-01"));
}

TEST_F(CertificateGeneratorTest, RequestIsOfVersion1AndSignedWithTheKey) {
    generate();
    const test::X509Request request = test::importRequest(service.requests.at(0).at("certificateRequest"));
    EXPECT_EQ(gnutls_x509_crq_get_version(request.get()), 1);
    EXPECT_EQ(gnutls_x509_crq_verify(request.get(), 0), 0);
    EXPECT_EQ(gnutls_x509_crq_get_signature_algorithm(request.get()), GNUTLS_SIGN_RSA_SHA256);
    EXPECT_EQ(
        test::publicKeyOf(request.get(), &gnutls_x509_crq_get_key_id),
        test::publicKeyOf(test::importKey(content("server.key")).get(), &gnutls_x509_privkey_get_key_id));
}

TEST_F(CertificateGeneratorTest, EachTimeTheKeyIsANewOne) {
    CertificateGenerator generator(record.logger, "backup-01", ownKey, service);
    generator.generate();
    const std::string first = content("server.key");
    generator.generate();
    EXPECT_NE(content("server.key"), first);
    EXPECT_NE(commonKey(content("server.key"), content("server.pem")), "");
}

TEST_F(CertificateGeneratorTest, NeedsAHostName) {
    EXPECT_EQ(messageOf<std::invalid_argument>(
                  [&] { const CertificateGenerator generator(record.logger, "", ownKey, service); }),
              "system hostname not provided");
}

TEST_F(CertificateGeneratorTest, FileThatCannotBeWrittenIsNamed) {
    for (const std::string name : {"server.key", "server.pem", "ca.crt"}) {
        clear();
        dir::make(certificatesDirectory() / name / "in the way");
        EXPECT_EQ(messageOf<std::runtime_error>([&] { generate(); }),
                  "could not open file " + name + " for writing");
        EXPECT_TRUE(record.hasPart(1, "Posix")) << name;
        record.clear();
        for (const std::string& left : dir::list(certificatesDirectory())) {
            EXPECT_THAT(left, Not(testing::EndsWith(".new")));
        }
    }
}

TEST_F(CertificateGeneratorTest, InterruptedReplacementNeverLooksComplete) {
    generate();
    file::remove(certificatesDirectory() / "server.pem");
    dir::make(certificatesDirectory() / "server.pem" / "in the way");
    EXPECT_THROW(generate(), std::runtime_error);
    EXPECT_FALSE(file::exists(certificatesDirectory() / "ca.crt"));
}

TEST_F(CertificateGeneratorTest, LeavesOldFilesAloneUntilAllIsThere) {
    generate();
    const std::string key = content("server.key");
    EXPECT_NE(refusal("retrieveCaCert", {200, "{}"}), "");
    EXPECT_EQ(content("server.key"), key);
    EXPECT_EQ(content("ca.crt"), service.authority.pem());
}

} // namespace
} // namespace agent::ordak
