#include "unit/ordak/CertificateGeneratorFixture.h"

#include <gmock/gmock.h>

#include <sstream>

namespace agent::ordak {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

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

} // namespace
} // namespace agent::ordak
