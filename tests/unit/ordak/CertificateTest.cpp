#include "ordak/Certificate.h"

#include "support/Messages.h"
#include "support/TestCertificates.h"
#include "support/TestDirectory.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <stdexcept>
#include <sys/stat.h>
#include <tuple>
#include <utility>

namespace agent::ordak {
namespace {

using test::CertificateContents;
using test::messageOf;
using test::TestCertificate;
using test::TestSession;

constexpr const char* importError = "Failed to import file as certificate (import error)";

TEST(DistinguishedNameTest, TakesNamesApart) {
    const DistinguishedName name = parseDistinguishedName("CN=4711,OU=Unit,O=Some Company,C=US");
    EXPECT_EQ(name.commonName, "4711");
    EXPECT_EQ(name.number, 4711);
    EXPECT_EQ(name.organization, "Some Company");
    EXPECT_EQ(name.organizationalUnit, "Unit");
    const DistinguishedName joined = parseDistinguishedName("O=x+CN=12+OU=y,UID=5");
    EXPECT_EQ(joined.commonName, "12");
    EXPECT_EQ(joined.organization, "x");
    EXPECT_EQ(joined.organizationalUnit, "y");
}

TEST(DistinguishedNameTest, EscapesProtectWhatFollows) {
    EXPECT_EQ(parseDistinguishedName("O=x\\, y\\+z,CN=1").organization, "x, y+z");
    EXPECT_EQ(parseDistinguishedName("O=x\\,CN=1").commonName, "");
    EXPECT_EQ(parseDistinguishedName("CN=1\\+CN=2").number, -1);
    EXPECT_EQ(parseDistinguishedName("O=\\\\,CN=3").number, 3);
    EXPECT_EQ(parseDistinguishedName("CN=1\\00").commonName, std::string("1\0", 2));
    EXPECT_EQ(parseDistinguishedName("CN=a\\C3\\bc").commonName, "a\xC3\xBC");
    EXPECT_EQ(parseDistinguishedName("CN=1\\").commonName, "1\\");
    EXPECT_EQ(parseDistinguishedName("CN=\\ 1").commonName, " 1");
}

TEST(DistinguishedNameTest, OddNames) {
    for (const std::string text :
         {"", ",", "+", ",+,+", "CN", "cn=1", " CN=1", "XCN=1", "\\", "=", "CN=", "OU="}) {
        const DistinguishedName name = parseDistinguishedName(text);
        EXPECT_EQ(name.commonName, "") << text;
        EXPECT_EQ(name.number, -1) << text;
    }
    EXPECT_EQ(parseDistinguishedName("CN=1,CN=2").number, 2);
    EXPECT_EQ(parseDistinguishedName("CN=1,CN=x").number, -1);
}

TEST(DistinguishedNameTest, Numbers) {
    const auto numberOf = [](const std::string& name) { return parseDistinguishedName("CN=" + name).number; };
    EXPECT_EQ(numberOf("0"), 0);
    EXPECT_EQ(numberOf("007"), 7);
    EXPECT_EQ(numberOf("2147483647"), 2147483647);
    EXPECT_EQ(numberOf("-5"), -5);
    for (const std::string none :
         {"2147483648", "4294967296", "12a", "1 ", " 1", "+1", "0x1", "1.0", "--1"}) {
        EXPECT_EQ(numberOf(none), -1) << none;
    }
    EXPECT_EQ(numberOf(std::string(100'000, '9')), -1);
}

TEST(DistinguishedNameTest, AnyBytes) {
    std::mt19937 random(20'000); // NOLINT: the same bytes each time
    const std::string usual = "CN=,+\\OU0a";
    for (int round = 0; round < 20'000; ++round) {
        std::string text(random() % 40, '\0');
        for (char& byte : text) {
            byte = random() % 2 == 0 ? static_cast<char>(random()) : usual[random() % usual.size()];
        }
        const DistinguishedName name = parseDistinguishedName(text);
        ASSERT_LE(name.commonName.size() + name.organization.size() + name.organizationalUnit.size(),
                  text.size());
    }
}

class CertificateTest : public testing::Test {
protected:
    std::string fileOf(const std::string& content) {
        test::writeFile(file, content);
        return file;
    }
    Certificate load(const CertificateContents& contents) {
        return Certificate(fileOf(authority.issue(key, contents).pem()));
    }

    test::TestDirectory directory;
    std::string file = directory / "certificate.pem";
    test::DeviceAuthority authority;
    test::TestKey key;
};

TEST_F(CertificateTest, NamesOfAFile) {
    const Certificate certificate =
        load({.commonName = "4711", .organization = "A, B", .organizationalUnit = "U"});
    EXPECT_EQ(certificate.issuer().commonName, "Device-Agent CA");
    EXPECT_EQ(certificate.issuer().number, -1);
    EXPECT_EQ(certificate.subject().commonName, "4711");
    EXPECT_EQ(certificate.subject().number, 4711);
    EXPECT_EQ(certificate.subject().organization, "A, B");
    EXPECT_EQ(certificate.subject().organizationalUnit, "U");
    EXPECT_EQ(certificate.kind(), Certificate::Kind::local);
}

TEST_F(CertificateTest, HostileCommonNames) {
    for (const std::string& name : {std::string("1+CN=2"), std::string("1,CN=2"), std::string("\n"),
                                    std::string("\\"), std::string("#30")}) {
        EXPECT_EQ(load({.commonName = name}).subject().commonName, name);
        EXPECT_EQ(load({.commonName = name}).subject().number, -1);
    }
    EXPECT_EQ(load({.commonName = ""}).subject().commonName, "");
    const Certificate withZero = load({.commonName = std::string("1\0", 2)});
    EXPECT_EQ(withZero.subject().commonName, "#0c023100"); // GnuTLS's notation
    EXPECT_EQ(withZero.subject().number, -1);
}

TEST_F(CertificateTest, FileThatDoesNotOpen) {
    EXPECT_EQ(messageOf<std::invalid_argument>([&] { Certificate{directory / "missing"}; }),
              "Failed to import file as certificate (failed to open file)");
}

TEST_F(CertificateTest, FilesThatHoldNoCertificate) {
    for (const std::string content :
         {"", "rubbish", "-----BEGIN CERTIFICATE-----\n-----END CERTIFICATE-----\n"}) {
        EXPECT_EQ(messageOf<std::runtime_error>([&] { Certificate{fileOf(content)}; }), importError);
    }
    EXPECT_EQ(messageOf<std::runtime_error>([&] { Certificate{directory.path()}; }), importError);
}

TEST_F(CertificateTest, PipeHoldsNobodyUp) {
    const std::string pipe = directory / "pipe";
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_EQ(messageOf<std::runtime_error>([&] { Certificate{pipe}; }), importError);
}

TEST_F(CertificateTest, LargestFile) {
    std::string content = authority.pem();
    content.resize(20'000, '\n');
    EXPECT_EQ(Certificate(fileOf(content)).subject().commonName, "Device-Agent CA");
    EXPECT_EQ(messageOf<std::invalid_argument>([&] { Certificate{fileOf(content + '\n')}; }),
              "Failed to import file as certificate (file too large)");
    EXPECT_EQ(messageOf<std::invalid_argument>([&] { Certificate{"/dev/zero"}; }),
              "Failed to import file as certificate (file too large)");
}

std::string pemOf(const std::string& der) {
    const gnutls_datum_t raw{
        reinterpret_cast<unsigned char*>(const_cast<char*>(der.data())), // NOLINT: read only
        static_cast<unsigned>(der.size())};
    gnutls_datum_t text{};
    test::requireGnuTls(gnutls_pem_base64_encode2("CERTIFICATE", &raw, &text));
    const std::unique_ptr<unsigned char, decltype(gnutls_free)> owner(text.data, gnutls_free);
    return {reinterpret_cast<const char*>(text.data), text.size};
}

/// Loads a file that may be damaged. It must yield a certificate or throw the exception for a damaged one.
bool loadsOrRefuses(const std::string& path) {
    try {
        const Certificate certificate(path);
        return certificate.handle() != nullptr;
    } catch (const std::runtime_error& error) {
        return error.what() == std::string(importError);
    }
}

TEST_F(CertificateTest, BrokenFilesDoNoHarm) {
    const TestCertificate made = authority.issue(key, test::deviceContents());
    const std::string der = made.der();
    for (std::size_t at = 0; at < der.size(); ++at) {
        EXPECT_TRUE(loadsOrRefuses(fileOf(pemOf(der.substr(0, at))))) << "cut at " << at;
        for (const char mask : {'\x01', '\x80', '\xff'}) {
            std::string flipped = der;
            flipped[at] = static_cast<char>(flipped[at] ^ mask);
            EXPECT_TRUE(loadsOrRefuses(fileOf(pemOf(flipped)))) << "flipped at " << at;
        }
    }
    const std::string pem = made.pem();
    for (std::size_t at = 0; at < pem.size(); ++at) {
        std::string flipped = pem;
        flipped[at] = static_cast<char>(~flipped[at]);
        EXPECT_TRUE(loadsOrRefuses(fileOf(flipped))) << "flipped at " << at;
        EXPECT_TRUE(loadsOrRefuses(fileOf(pem.substr(0, at)))) << "cut at " << at;
    }
}

TEST_F(CertificateTest, SessionHasBothCertificates) {
    const test::TestKey deviceKey;
    const TestSession session({key.pem(), authority.issue(key, {.commonName = "agent"}).pem()},
                              {deviceKey.pem(), authority.issue(deviceKey, test::deviceContents()).pem()});
    const Certificate local(Certificate::Kind::local, session.serverSession());
    const Certificate peer(Certificate::Kind::peer, session.serverSession());
    EXPECT_EQ(local.subject().commonName, "agent");
    EXPECT_EQ(local.kind(), Certificate::Kind::local);
    EXPECT_EQ(peer.subject().number, 4711);
    EXPECT_EQ(peer.kind(), Certificate::Kind::peer);
    EXPECT_EQ(messageOf<std::invalid_argument>(
                  [&] { Certificate(static_cast<Certificate::Kind>(2), session.serverSession()); }),
              "Internal error occurred loading certificate");
}

TEST_F(CertificateTest, SessionsWithoutCertificates) {
    EXPECT_EQ(messageOf<std::invalid_argument>([] { Certificate(Certificate::Kind::local, nullptr); }),
              "Bad session");
    EXPECT_EQ(messageOf<std::invalid_argument>([] { Certificate(Certificate::Kind::peer, nullptr); }),
              "Bad session");
    const TestSession session({key.pem(), authority.issue(key, {.commonName = "agent"}).pem()}, {});
    EXPECT_EQ(
        messageOf<std::runtime_error>([&] { Certificate(Certificate::Kind::peer, session.serverSession()); }),
        "Failed to verify peer certificate");
    EXPECT_EQ(messageOf<std::runtime_error>(
                  [&] { Certificate(Certificate::Kind::local, session.clientSession()); }),
              "Failed to load local certificate");
}

TEST_F(CertificateTest, SignedData) {
    const Certificate certificate = load({.commonName = "agent"});
    const std::string signature = key.sign("ticket");
    EXPECT_GE(certificate.verifyData(GNUTLS_SIGN_ECDSA_SHA256, "ticket", signature), 0);
    EXPECT_EQ(certificate.verifyData(GNUTLS_SIGN_ECDSA_SHA256, "Ticket", signature),
              GNUTLS_E_PK_SIG_VERIFY_FAILED);
    EXPECT_LT(certificate.verifyData(GNUTLS_SIGN_ECDSA_SHA256, "ticket", ""), 0);
    EXPECT_LT(certificate.verifyData(GNUTLS_SIGN_RSA_SHA256, "ticket", signature), 0);
    EXPECT_LT(certificate.verifyData(GNUTLS_SIGN_UNKNOWN, "ticket", signature), 0);
    EXPECT_LT(certificate.verifyData(GNUTLS_SIGN_ECDSA_SHA256, "ticket", test::TestKey().sign("ticket")), 0);
    for (std::size_t length = 0; length < signature.size(); ++length) {
        EXPECT_LT(certificate.verifyData(GNUTLS_SIGN_ECDSA_SHA256, "ticket", signature.substr(0, length)), 0);
    }
}

TEST_F(CertificateTest, SignedDataOutsideTheTime) {
    const std::time_t now = std::time(nullptr);
    const Certificate expired = load({.activation = now - 100, .expiration = now - 10});
    EXPECT_EQ(expired.verifyData(GNUTLS_SIGN_ECDSA_SHA256, "ticket", key.sign("ticket")), -29);
    const Certificate early = load({.activation = now + 1000, .expiration = now + 2000});
    EXPECT_EQ(
        messageOf<std::runtime_error>(
            [&] { std::ignore = early.verifyData(GNUTLS_SIGN_ECDSA_SHA256, "ticket", key.sign("ticket")); }),
        "Error occurred verifying certificate data: Local certificate is not yet activated. Verify that "
        "system time is accurate.");
}

TEST_F(CertificateTest, SignedDataWithoutAHandle) {
    Certificate certificate = load({});
    const Certificate taken = std::move(certificate);
    // NOLINTNEXTLINE(bugprone-use-after-move): which is how to come by one
    EXPECT_EQ(messageOf<std::runtime_error>([&] {
                  // NOLINTNEXTLINE(bugprone-use-after-move)
                  std::ignore = certificate.verifyData(GNUTLS_SIGN_ECDSA_SHA256, "ticket", "");
              }),
              "Internal error occurred verifying certificate data: uninitialized certificate");
    EXPECT_NE(taken.handle(), nullptr);
}

} // namespace
} // namespace agent::ordak
