#include "common/UUIDGenerator.h"

#include "support/Messages.h"

#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <stdexcept>

namespace agent {
namespace {

TEST(UUIDGenerator, GeneratesDifferentLowerCaseTexts) {
    const UUIDGenerator generator;
    std::set<std::string> seen;
    for (int i = 0; i < 100; ++i) {
        const std::string uuid = generator.generate();
        EXPECT_TRUE(std::regex_match(uuid, std::regex("[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}"))) << uuid;
        seen.insert(uuid);
    }
    EXPECT_EQ(seen.size(), 100U);
}

TEST(UUIDGenerator, ParseGivesTheUsualForm) {
    EXPECT_EQ(UUIDGenerator().parse("0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0"),
              "0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0");
}

TEST(UUIDGenerator, ParseRefusesWhatIsNone) {
    const UUIDGenerator generator;
    for (const std::string& text : {std::string(), std::string("0f1e"), std::string(36, 'x'),
                                    std::string("0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0 "),
                                    std::string("0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f\0", 36)}) {
        EXPECT_EQ(test::messageOf<std::invalid_argument>([&] { (void)generator.parse(text); }),
                  std::string(("\"" + text + "\" is not a UUID").c_str()));
    }
}

TEST(UUIDGenerator, Nil) {
    EXPECT_EQ(UUIDGenerator().nil(), "00000000-0000-0000-0000-000000000000");
}

} // namespace
} // namespace agent
