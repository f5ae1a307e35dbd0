#include "ordak/CertificateGenerator.h"

#include "common/Directory.h"
#include "common/Exceptions.h"
#include "common/File.h"
#include "ordak/CURLError.h"
#include "ordak/CertificateService.h"
#include "ordak/Certificates.h"
#include "ordak/GCryptError.h"
#include "support/Messages.h"
#include "support/RecordingLogger.h"
#include "support/TestAuthority.h"
#include "support/TestDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <gpg-error.h>
#include <map>
#include <sstream>
#include <sys/stat.h>

namespace agent::ordak {
namespace {

using exception::bad_response;
using nlohmann::json;
using test::messageOf;
using test::readFile;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr const char* ownKey = "the agent's word";

/// Signs requests with an authority of its own, unless the test sets the answer.
class Service : public ICertificateService {
public:
    Answer put(const std::string& action, const std::string& text) override {
        const json request = json::parse(text);
        actions.push_back(action);
        requests.push_back(request);
        if (const auto told = answers.find(action); told != answers.end()) {
            return told->second;
        }
        return success(action == "issueCert" ? authority.issue(request.at("certificateRequest"))
                                             : authority.pem());
    }

    static Answer success(const std::string& certificate) {
        return {200, json{{"status", "success"}, {"certificate", certificate}}.dump()};
    }

    test::TestAuthority authority;
    std::map<std::string, Answer> answers;
    std::vector<std::string> actions;
    std::vector<json> requests;
};

/// The agent's directory of certificates is private to the test program.
class CertificateGeneratorTest : public testing::Test {
protected:
    CertificateGeneratorTest() { clear(); }
    ~CertificateGeneratorTest() override { clear(); }

    static void clear() {
        if (file::exists(certificatesDirectory())) {
            dir::remove(certificatesDirectory());
        }
    }

    void generate() { CertificateGenerator(record.logger, "backup-01", ownKey, service).generate(); }

    /// The message of the generator's exception when the service answers such a request like this.
    std::string refusal(const std::string& action, const ICertificateService::Answer& answer) {
        service.answers[action] = answer;
        return messageOf<bad_response>([&] { generate(); });
    }

    static std::string content(const char* name) { return readFile(certificatesDirectory() / name); }

    test::RecordingLogger record;
    Service service;
};

std::string commonKey(const std::string& key, const std::string& certificate) {
    const std::string ofKey = test::publicKeyOf(test::importKey(key).get(), &gnutls_x509_privkey_get_key_id);
    const std::string ofCertificate =
        test::publicKeyOf(test::importCertificate(certificate).get(), &gnutls_x509_crt_get_key_id);
    return ofKey == ofCertificate ? ofKey : "";
}

mode_t modeOf(const char* name) {
    return file::status(certificatesDirectory() / name).st_mode & 07777U;
}

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

TEST_F(CertificateGeneratorTest, AnswerThatIsNoJson) {
    for (const char* body :
         {"", "<html>Sorry</html>", R"({"status": "success")", "{} {}", "{\"a\": \"\xff\"}"}) {
        EXPECT_EQ(refusal("issueCert", {200, body}), "curl request issueCert response incorrectly formatted")
            << body;
    }
    service.answers.clear();
    EXPECT_EQ(refusal("retrieveCaCert", {200, "no"}),
              "curl request retrieveCaCert response incorrectly formatted");
    EXPECT_FALSE(file::exists(certificatesDirectory()));
}

TEST_F(CertificateGeneratorTest, AnswerWithoutTheKeys) {
    for (const char* body :
         {"{}", "[]", "null", "\"success\"", "7", R"({"status": "success"})", R"({"certificate": "PEM"})",
          R"({"status": 1, "certificate": "PEM"})", R"({"status": "success", "certificate": null})",
          R"({"Status": "success", "Certificate": "PEM"})", R"({"status": "failed"})"}) {
        EXPECT_EQ(refusal("issueCert", {200, body}),
                  "curl request issueCert response keys not found, or not formatted correctly")
            << body;
    }
    service.answers.clear();
    EXPECT_EQ(refusal("retrieveCaCert", {200, "{}"}),
              "curl request retrieveCaCert response keys not found, or not formatted correctly");
    EXPECT_FALSE(file::exists(certificatesDirectory()));
}

TEST_F(CertificateGeneratorTest, AnswerThatTellsOfFailure) {
    for (const char* status : {"failed", "", "Success", "success "}) {
        const std::string body = json{{"status", status}, {"certificate", ""}}.dump();
        EXPECT_EQ(refusal("issueCert", {200, body}), "curl request issueCert status: failed") << status;
    }
    service.answers.clear();
    EXPECT_EQ(refusal("retrieveCaCert", {200, R"({"status": "failed", "certificate": ""})"}),
              "curl request retrieveCaCert status: failed");
    EXPECT_FALSE(file::exists(certificatesDirectory()));
}

TEST_F(CertificateGeneratorTest, HttpStatusIsLoggedAndTheBodySaysWhatIsWrong) {
    EXPECT_EQ(refusal("issueCert", {500, R"({"status": "failed", "certificate": ""})"}),
              "curl request issueCert status: failed");
    EXPECT_EQ(refusal("issueCert", {502, "<html>Bad gateway</html>"}),
              "curl request issueCert response incorrectly formatted");
    EXPECT_TRUE(record.has(2, "Certificate service answered issueCert with HTTP status 500"));
    EXPECT_TRUE(record.has(2, "Certificate service answered issueCert with HTTP status 502"));
}

TEST_F(CertificateGeneratorTest, SuccessUnderAnHttpStatusOfFailureIsNone) {
    for (const long status : {100L, 199L, 300L, 302L, 404L, 500L}) {
        ICertificateService::Answer answer = Service::success(service.authority.pem());
        answer.status = status;
        EXPECT_EQ(refusal("retrieveCaCert", answer),
                  "curl request retrieveCaCert answered with HTTP status " + std::to_string(status));
    }
    EXPECT_FALSE(file::exists(certificatesDirectory()));
}

TEST_F(CertificateGeneratorTest, EveryHttpStatusOfSuccessWillDo) {
    service.answers["retrieveCaCert"] = Service::success(service.authority.pem());
    for (const long status : {201L, 299L}) {
        service.answers["retrieveCaCert"].status = status;
        EXPECT_NO_THROW(generate()) << status;
    }
}

TEST_F(CertificateGeneratorTest, CertificateForAnotherKeyIsNotStored) {
    generate();
    const std::string another = content("server.pem");
    clear();
    EXPECT_EQ(refusal("issueCert", Service::success(another)),
              "curl request issueCert certificate can't be used: it is for another key");
    EXPECT_FALSE(file::exists(certificatesDirectory()));
}

TEST_F(CertificateGeneratorTest, AuthorityThatHasNotIssuedTheCertificateIsNotStored) {
    const test::TestAuthority another; // with the same name
    const std::string reason =
        "curl request retrieveCaCert certificate can't be used: it is not the issuer of the agent's";
    EXPECT_EQ(refusal("retrieveCaCert", Service::success(another.pem())), reason);
    EXPECT_FALSE(file::exists(certificatesDirectory()));
    service.answers.clear();
    generate();
    const std::string own = content("server.pem");
    EXPECT_EQ(refusal("retrieveCaCert", Service::success(own)), reason);
    EXPECT_EQ(content("ca.crt"), service.authority.pem());
    EXPECT_EQ(content("server.pem"), own);
}

TEST_F(CertificateGeneratorTest, WhatIsNoCertificateIsNotStored) {
    const std::string good = service.authority.pem();
    std::string damaged = good;
    damaged.replace(good.find("-----\n") + 6, 8, "AAAAAAAA");
    for (const std::string& pem : {std::string(), std::string("garbage"), damaged, good.substr(0, 200)}) {
        for (const char* action : {"issueCert", "retrieveCaCert"}) {
            service.answers.clear();
            EXPECT_THAT(refusal(action, Service::success(pem)),
                        StartsWith("curl request " + std::string(action) +
                                   " certificate can't be used: it is no PEM certificate ("));
        }
    }
    EXPECT_FALSE(file::exists(certificatesDirectory()));
}

TEST_F(CertificateGeneratorTest, CertificateThatItsReadersWouldNotTakeIsNotStored) {
    const std::string good = service.authority.pem();
    const std::string longest = good + std::string(20000 - good.size(), '\n');
    EXPECT_EQ(refusal("retrieveCaCert", Service::success(longest + "\n")),
              "curl request retrieveCaCert certificate can't be used: it has 20001 bytes, at most 20000 are "
              "expected");
    EXPECT_EQ(refusal("retrieveCaCert", Service::success(std::string(1, '\0') + good)),
              "curl request retrieveCaCert certificate can't be used: it holds a NUL");
    EXPECT_FALSE(file::exists(certificatesDirectory()));
    service.answers["retrieveCaCert"] = Service::success(longest);
    generate();
    EXPECT_EQ(content("ca.crt"), longest);
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

class LoadOrCreateTest : public CertificateGeneratorTest {
protected:
    static void put(const char* name, const std::string& text) {
        dir::make(certificatesDirectory());
        const std::string path = certificatesDirectory() / name;
        test::writeFile(path, text);
        const bool isKey = std::string(name) == "server.key";
        EXPECT_EQ(::chmod(path.c_str(), isKey ? 0600 : 0644), 0);
    }

    void load(const std::function<void()>& generator) {
        loadOrCreate(certificates, record.logger, [&] {
            ++generated;
            generator();
        });
    }

    std::string failureWith(const std::function<void()>& generator) {
        return messageOf<std::runtime_error>([&] { load(generator); });
    }

    Certificates certificates;
    int generated = 0;
};

void nothing() {}

TEST_F(LoadOrCreateTest, ReadsTheThreeFiles) {
    put("server.key", "the key\n");
    put("server.pem", "the certificate\n");
    put("ca.crt", std::string("the\0authority", 13));
    load(nothing);
    EXPECT_EQ(generated, 0);
    EXPECT_EQ(certificates.key, "the key\n");
    EXPECT_EQ(certificates.certificate, "the certificate\n");
    EXPECT_EQ(certificates.ca, std::string("the\0authority", 13));
    EXPECT_THAT(record.lines(), IsEmpty());
}

TEST_F(LoadOrCreateTest, AKeyThatOthersCanReadIsClosedToThem) {
    put("server.key", "the key\n");
    put("server.pem", "the certificate\n");
    put("ca.crt", "the authority\n");
    const std::string path = certificatesDirectory() / "server.key";
    for (const mode_t mode : {0644U, 0604U, 0640U, 0620U}) {
        record.clear();
        ASSERT_EQ(::chmod(path.c_str(), mode), 0);
        load(nothing);
        EXPECT_EQ(modeOf("server.key"), 0600U);
        std::ostringstream line;
        line << path << " could be used by others than its owner (mode 0" << std::oct << mode
             << "); now it can't. Have a new one made if anybody may have read it";
        EXPECT_THAT(record.lines(),
                    ElementsAre(test::RecordingLogger::Line{info::level::warning, line.str()}));
    }
    record.clear();
    load(nothing);
    EXPECT_THAT(record.lines(), IsEmpty());
    EXPECT_EQ(certificates.key, "the key\n");
    EXPECT_EQ(modeOf("server.pem"), 0644U);
}

TEST_F(LoadOrCreateTest, MakesThemOnTheFirstStartOnly) {
    load([&] { generate(); });
    const Certificates first = certificates;
    EXPECT_NE(commonKey(first.key, first.certificate), "");
    load([&] { generate(); });
    EXPECT_EQ(generated, 1);
    EXPECT_EQ(certificates.key, first.key);
    EXPECT_EQ(certificates.ca, first.ca);
    EXPECT_EQ(service.actions.size(), 2U);
}

TEST_F(LoadOrCreateTest, OneMissingFileHasAllMadeAnew) {
    for (const char* name : {"server.key", "server.pem", "ca.crt"}) {
        load([&] { generate(); });
        const std::string before = certificates.key;
        file::remove(certificatesDirectory() / name);
        load([&] { generate(); });
        EXPECT_NE(certificates.key, before) << name;
        EXPECT_NE(commonKey(certificates.key, certificates.certificate), "") << name;
    }
}

TEST_F(LoadOrCreateTest, EmptyAndUnreadableFilesAreMissing) {
    put("server.key", "");
    dir::make(certificatesDirectory() / "server.pem");
    put("ca.crt", "authority");
    EXPECT_THAT(failureWith(nothing), testing::EndsWith(":  server.key server.pem"));
    EXPECT_EQ(generated, 1);
}

TEST_F(LoadOrCreateTest, TellsWhatWasMissingAndWhyItCouldNotBeMade) {
    const auto unreachable = [] { throw std::runtime_error("no route"); };
    const std::string all =
        "Could not find certificate files: server.key server.pem ca.crt; subsequently failed "
        "to create them with error message: no route";
    EXPECT_EQ(failureWith(unreachable), all);
    EXPECT_TRUE(record.has(1, all));
    put("server.key", "key");
    put("ca.crt", "authority");
    EXPECT_EQ(failureWith(unreachable),
              "Could not find certificate files: server.pem; subsequently failed to "
              "create them with error message: no route");
}

TEST_F(LoadOrCreateTest, TellsWhatIsMissingAfterAll) {
    const auto half = [] { put("server.pem", "certificate"); };
    const std::string text = "Could not find certificates after their presumed creation:  server.key ca.crt";
    EXPECT_EQ(failureWith(half), text);
    EXPECT_TRUE(record.has(1, text));
}

TEST_F(LoadOrCreateTest, MissingHostNameIsAReasonOnlyWhenItIsNeeded) {
    const auto nameless = [&] { CertificateGenerator(record.logger, "", ownKey, service).generate(); };
    EXPECT_THAT(failureWith(nameless), testing::EndsWith("error message: system hostname not provided"));
    generate();
    EXPECT_NO_THROW(load(nameless));
}

TEST(CertificateService, PortThatNobodyListensOnIsAnErrorOfTheLibrary) {
    CertificateService service("127.0.0.1:1");
    try {
        service.put("issueCert", "{}");
        FAIL() << "nothing was thrown";
    } catch (const CURLError& error) {
        EXPECT_EQ(error.code(), CURLE_COULDNT_CONNECT);
        EXPECT_THAT(error.what(),
                    StartsWith("curl request issueCert to https://127.0.0.1:1/certApi.php failed ("));
        EXPECT_THAT(error.what(), testing::EndsWith(" | ERROR(CURL) : 7 (0x7)"));
    }
}

TEST(LibraryErrors, CarryTheLibrarysWordsAndCode) {
    const GCryptError gcrypt("error during gcry_control", GPG_ERR_INV_OP);
    EXPECT_EQ(std::string(gcrypt.what()),
              "error during gcry_control: " + std::string(gpg_strerror(GPG_ERR_INV_OP)) +
                  " | ERROR(GCRYPT) : 61 (0x3d)");
    EXPECT_EQ(gcrypt.code(), static_cast<unsigned>(GPG_ERR_INV_OP));
    const CURLError curl("Error during curl_easy_init", CURLE_FAILED_INIT);
    EXPECT_STREQ(curl.what(), "Error during curl_easy_init: Failed initialization | ERROR(CURL) : 2 (0x2)");
}

} // namespace
} // namespace agent::ordak
