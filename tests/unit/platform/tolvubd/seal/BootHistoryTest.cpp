#include "seal/BootHistory.h"

#include "SealedDevice.h"
#include "Uuid.h"
#include "seal/Seal.h"
#include "support/TestDirectory.h"

#include <gtest/gtest.h>

#include <string>

namespace tolvubd {
namespace {

class BootHistory : public testing::Test {
protected:
    agent::test::TestDirectory directory;
    const std::string path = directory / "starts";
};

TEST_F(BootHistory, RecordsEachBootOnce) {
    EXPECT_EQ(previousBootId(path), "");
    recordBoot(path);
    recordBoot(path);
    EXPECT_EQ(agent::test::readFile(path), currentBootId() + "\n");
    EXPECT_EQ(previousBootId(path), "");
}

TEST_F(BootHistory, TellsTheOneBefore) {
    const std::string earlier = makeUuid();
    agent::test::writeFile(path, earlier + "\n");
    EXPECT_EQ(previousBootId(path), earlier);
    recordBoot(path);
    EXPECT_EQ(previousBootId(path), earlier);
}

TEST_F(BootHistory, ForgetsTheOldest) {
    std::string text;
    for (int count = 0; count < 20; ++count) {
        text += makeUuid() + "\n";
    }
    agent::test::writeFile(path, text);
    recordBoot(path);
    EXPECT_EQ(agent::test::readFile(path), text.substr(481) + currentBootId() + "\n");
}

TEST_F(BootHistory, IsNotReadFromWhatIsNone) {
    for (const std::string& text : {std::string("nonsense\n"), makeUuid() + "\n\n", std::string(9000, 'a')}) {
        agent::test::writeFile(path, text);
        EXPECT_EQ(previousBootId(path), "");
        recordBoot(path);
        EXPECT_EQ(agent::test::readFile(path), currentBootId() + "\n");
    }
}

} // namespace
} // namespace tolvubd
