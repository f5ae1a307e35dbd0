#include "ordak/VerifyClient.h"

#include "common/File.h"
#include "support/RecordingLogger.h"
#include "support/TestCertificates.h"
#include "support/TestDirectory.h"

#include <gtest/gtest.h>

namespace agent::ordak {
namespace {

using Lines = std::vector<test::RecordingLogger::Line>;
using test::CertificateContents;
using test::deviceContents;
using test::deviceTypeData;
using test::deviceTypeOid;

const Lines noType = {{1, "Failed to find required metadata in client certificate"}};

class VerifyClientTest : public testing::Test {
protected:
    VerifyClientTest() {
        dir::make(dir::base() / "certs");
        trust(authority.pem());
    }
    ~VerifyClientTest() override { dir::remove(dir::base() / "certs"); }

    void trust(const std::string& content) const { test::writeFile(trustFile, content); }

    Certificate load(const std::string& pem) const {
        const std::string path = directory / "certificate.pem";
        test::writeFile(path, pem);
        return Certificate(path);
    }

    int verify(const Certificate& peer) {
        record.clear();
        const Certificate local = load(authority.issue(key, {.commonName = "agent"}).pem());
        return verifyClient(record.logger, local, peer);
    }
    int verify(const CertificateContents& contents) {
        return verify(load(authority.issue(key, contents).pem()));
    }

    /// Expects that the certificate is refused with exactly these log lines.
    void expectRefused(const CertificateContents& contents, const Lines& lines) {
        EXPECT_EQ(verify(contents), 1);
        EXPECT_EQ(record.lines(), lines);
    }

    static CertificateContents withExtensionsBefore(int others) {
        CertificateContents contents = deviceContents();
        for (int number = 0; number < others; ++number) {
            contents.extensions.insert(contents.extensions.begin(),
                                       {"1.3.6.1.4.1.99999." + std::to_string(number + 1), "\x05"});
        }
        return contents;
    }

    test::TestDirectory directory;
    std::string trustFile = dir::base() / "certs/ca.crt";
    test::DeviceAuthority authority;
    test::TestKey key;
    test::RecordingLogger record;
};

TEST_F(VerifyClientTest, DeviceIsAccepted) {
    EXPECT_EQ(verify(deviceContents()), 0);
    EXPECT_TRUE(record.lines().empty());
}

TEST_F(VerifyClientTest, AnotherIssuer) {
    const test::DeviceAuthority other("Other\nCA");
    EXPECT_EQ(verify(load(other.issue(key, deviceContents()).pem())), 1);
    EXPECT_EQ(record.lines(),
              (Lines{{4, "Certificate issuer mismatch (ours='Device-Agent CA'; theirs='Other\\nCA'"},
                     {1, "Certificate issuer mismatch"}}));
}

TEST_F(VerifyClientTest, CommonNames) {
    expectRefused(deviceContents(""),
                  {{4, "Bad client certificate Common Name"}, {1, "Certificate invalid Common Name"}});
    for (const std::string name : {"0", "007", "12a", "a12", "-1", "1 ", " 1", "1.5"}) {
        expectRefused(deviceContents(name),
                      {{4, "Client Common Name '" + name + "' does not match expected deviceID format"},
                       {1, "Certificate invalid Common Name"}});
    }
    expectRefused(deviceContents("1\n"),
                  {{4, "Client Common Name '1\\n' does not match expected deviceID format"},
                   {1, "Certificate invalid Common Name"}});
    EXPECT_EQ(verify(deviceContents("1")), 0);
    EXPECT_EQ(verify(deviceContents("4294967296")), 0);
    const Certificate large = load(authority.issue(key, deviceContents("4294967296")).pem());
    EXPECT_EQ(large.subject().number, -1);
}

TEST_F(VerifyClientTest, TrustFileThatCannotBeUsed) {
    const Lines refused = {{1, "Internal error - failed to import trust file as cert"}};
    for (const std::string content : {"", "rubbish"}) {
        trust(content);
        expectRefused(deviceContents(), refused);
    }
    std::string padded = authority.pem();
    padded.resize(20'000, '\n');
    trust(padded);
    EXPECT_EQ(verify(deviceContents()), 0);
    trust(padded + '\n');
    expectRefused(deviceContents(), refused);
    file::remove(trustFile);
    expectRefused(deviceContents(), refused);
}

TEST_F(VerifyClientTest, AnotherKeyBehindTheIssuersName) {
    const test::DeviceAuthority namesake;
    EXPECT_EQ(verify(load(namesake.issue(key, deviceContents()).pem())), 1);
    EXPECT_EQ(record.lines(), (Lines{{1, "Verification of device certificate failed: Cert signer not found"},
                                     {1, "Failed to verify client certificate"}}));
}

TEST_F(VerifyClientTest, Times) {
    const std::time_t now = std::time(nullptr);
    CertificateContents expired = deviceContents();
    expired.activation = now - 100;
    expired.expiration = now - 10;
    expectRefused(expired, {{1, "Verification of device certificate failed: Cert expired"},
                            {1, "Failed to verify client certificate"}});
    CertificateContents early = deviceContents();
    early.activation = now + 1000;
    early.expiration = now + 2000;
    expectRefused(early, {{1, "Verification of device certificate failed: Cert invalid activation time"},
                          {1, "Failed to verify client certificate"}});
}

TEST_F(VerifyClientTest, SignatureThatDoesNotFit) {
    std::string der = authority.issue(key, deviceContents()).der();
    der.back() = static_cast<char>(der.back() ^ 1);
    const gnutls_datum_t raw{reinterpret_cast<unsigned char*>(der.data()), static_cast<unsigned>(der.size())};
    gnutls_datum_t text{};
    test::requireGnuTls(gnutls_pem_base64_encode2("CERTIFICATE", &raw, &text));
    const std::unique_ptr<unsigned char, decltype(gnutls_free)> owner(text.data, gnutls_free);
    EXPECT_EQ(verify(load({reinterpret_cast<const char*>(text.data), text.size})), 1);
    EXPECT_EQ(record.lines(), (Lines{{1, "Verification of device certificate failed: Unspecified error(s)"},
                                     {1, "Failed to verify client certificate"}}));
}

TEST_F(VerifyClientTest, RulesAreAppliedInOrder) {
    const test::DeviceAuthority other("Other CA");
    trust("rubbish");
    CertificateContents worst;
    worst.commonName = "0";
    EXPECT_EQ(verify(load(other.issue(key, worst).pem())), 1);
    EXPECT_TRUE(record.has(1, "Certificate issuer mismatch"));
    EXPECT_EQ(verify(worst), 1);
    EXPECT_TRUE(record.has(1, "Certificate invalid Common Name"));
    worst.commonName = "1";
    worst.expiration = std::time(nullptr) - 10;
    EXPECT_EQ(verify(worst), 1);
    EXPECT_TRUE(record.has(1, "Internal error - failed to import trust file as cert"));
    trust(authority.pem());
    EXPECT_EQ(verify(worst), 1);
    EXPECT_TRUE(record.has(1, "Verification of device certificate failed: Cert expired"));
    worst.expiration = std::time(nullptr) + 1000;
    expectRefused(worst, noType);
}

TEST_F(VerifyClientTest, DeviceType) {
    const auto withType = [](const std::string& data) {
        CertificateContents contents = deviceContents();
        contents.extensions = {{deviceTypeOid, data}};
        return contents;
    };
    for (const std::string& data :
         {deviceTypeData("type:device "), deviceTypeData("type:server"), deviceTypeData("type:device", 12),
          deviceTypeData("type:devic"), deviceTypeData().substr(0, 12), std::string("\x16"),
          std::string("\x16\x0b"), deviceTypeData("x") + std::string(2000, 'x')}) {
        expectRefused(withType(data), noType);
    }
    CertificateContents elsewhere = deviceContents();
    elsewhere.extensions = {{"2.16.840.1.113730.1.14", deviceTypeData()},
                            {"2.16.840.1.113730.1.13.1", deviceTypeData()}};
    expectRefused(elsewhere, noType);
    // Bytes after the text are ignored, up to the maximum that is read.
    EXPECT_EQ(verify(withType(deviceTypeData() + "x")), 0);
    EXPECT_EQ(verify(withType(deviceTypeData() + std::string(999 - 13, 'x'))), 0);
    expectRefused(withType(deviceTypeData() + std::string(1000 - 13, 'x')), noType);
}

TEST_F(VerifyClientTest, HundredExtensions) {
    EXPECT_EQ(verify(withExtensionsBefore(99)), 0);
    expectRefused(withExtensionsBefore(100), noType);
    CertificateContents longOid = deviceContents();
    std::string oid = "1.3";
    for (int number = 0; number < 10; ++number) {
        oid += ".1234567890";
    }
    longOid.extensions.insert(longOid.extensions.begin(), {oid, "\x05"});
    EXPECT_EQ(verify(longOid), 0);
}

} // namespace
} // namespace agent::ordak
