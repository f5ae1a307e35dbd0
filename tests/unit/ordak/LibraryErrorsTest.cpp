#include "ordak/CURLError.h"
#include "ordak/CertificateService.h"
#include "ordak/GCryptError.h"
#include "unit/ordak/CertificateGeneratorFixture.h"

#include <gmock/gmock.h>

#include <gpg-error.h>

namespace agent::ordak {
namespace {

using testing::StartsWith;

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
