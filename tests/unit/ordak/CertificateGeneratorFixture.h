#pragma once

#include "common/Directory.h"
#include "common/Exceptions.h"
#include "common/File.h"
#include "ordak/CertificateGenerator.h"
#include "ordak/Certificates.h"
#include "support/Messages.h"
#include "support/RecordingLogger.h"
#include "support/TestAuthority.h"
#include "support/TestDirectory.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <map>
#include <sys/stat.h>

namespace agent::ordak {

using exception::bad_response;
using nlohmann::json;
using test::messageOf;
using test::readFile;

inline constexpr const char* ownKey = "the agent's word";

/// Signs requests with an authority of its own, unless the test sets the answer.
class SigningService : public ICertificateService {
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

    /// The message of the generator's exception when the service gives this answer to a request of this kind.
    std::string refusal(const std::string& action, const ICertificateService::Answer& answer) {
        service.answers[action] = answer;
        return messageOf<bad_response>([&] { generate(); });
    }

    static std::string content(const char* name) { return readFile(certificatesDirectory() / name); }

    test::RecordingLogger record;
    SigningService service;
};

inline std::string commonKey(const std::string& key, const std::string& certificate) {
    const std::string ofKey = test::publicKeyOf(test::importKey(key).get(), &gnutls_x509_privkey_get_key_id);
    const std::string ofCertificate =
        test::publicKeyOf(test::importCertificate(certificate).get(), &gnutls_x509_crt_get_key_id);
    return ofKey == ofCertificate ? ofKey : "";
}

inline mode_t modeOf(const char* name) {
    return file::status(certificatesDirectory() / name).st_mode & 07777U;
}

} // namespace agent::ordak
