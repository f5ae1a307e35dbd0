#include "unit/ordak/CertificateGeneratorFixture.h"

#include <gmock/gmock.h>

namespace agent::ordak {
namespace {

using testing::StartsWith;

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
        ICertificateService::Answer answer = SigningService::success(service.authority.pem());
        answer.status = status;
        EXPECT_EQ(refusal("retrieveCaCert", answer),
                  "curl request retrieveCaCert answered with HTTP status " + std::to_string(status));
    }
    EXPECT_FALSE(file::exists(certificatesDirectory()));
}

TEST_F(CertificateGeneratorTest, EveryHttpStatusOfSuccessWillDo) {
    service.answers["retrieveCaCert"] = SigningService::success(service.authority.pem());
    for (const long status : {201L, 299L}) {
        service.answers["retrieveCaCert"].status = status;
        EXPECT_NO_THROW(generate()) << status;
    }
}

TEST_F(CertificateGeneratorTest, CertificateForAnotherKeyIsNotStored) {
    generate();
    const std::string another = content("server.pem");
    clear();
    EXPECT_EQ(refusal("issueCert", SigningService::success(another)),
              "curl request issueCert certificate can't be used: it is for another key");
    EXPECT_FALSE(file::exists(certificatesDirectory()));
}

TEST_F(CertificateGeneratorTest, AuthorityThatHasNotIssuedTheCertificateIsNotStored) {
    const test::TestAuthority another; // with the same name
    const std::string reason =
        "curl request retrieveCaCert certificate can't be used: it is not the issuer of the agent's";
    EXPECT_EQ(refusal("retrieveCaCert", SigningService::success(another.pem())), reason);
    EXPECT_FALSE(file::exists(certificatesDirectory()));
    service.answers.clear();
    generate();
    const std::string own = content("server.pem");
    EXPECT_EQ(refusal("retrieveCaCert", SigningService::success(own)), reason);
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
            EXPECT_THAT(refusal(action, SigningService::success(pem)),
                        StartsWith("curl request " + std::string(action) +
                                   " certificate can't be used: it is no PEM certificate ("));
        }
    }
    EXPECT_FALSE(file::exists(certificatesDirectory()));
}

TEST_F(CertificateGeneratorTest, CertificateThatItsReadersWouldNotTakeIsNotStored) {
    const std::string good = service.authority.pem();
    const std::string longest = good + std::string(20000 - good.size(), '\n');
    EXPECT_EQ(refusal("retrieveCaCert", SigningService::success(longest + "\n")),
              "curl request retrieveCaCert certificate can't be used: it has 20001 bytes, at most 20000 are "
              "expected");
    EXPECT_EQ(refusal("retrieveCaCert", SigningService::success(std::string(1, '\0') + good)),
              "curl request retrieveCaCert certificate can't be used: it holds a NUL");
    EXPECT_FALSE(file::exists(certificatesDirectory()));
    service.answers["retrieveCaCert"] = SigningService::success(longest);
    generate();
    EXPECT_EQ(content("ca.crt"), longest);
}

} // namespace
} // namespace agent::ordak
