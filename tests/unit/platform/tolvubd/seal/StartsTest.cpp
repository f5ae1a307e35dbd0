#include "seal/Starts.h"

#include "SealedDevice.h"
#include "Uuid.h"
#include "seal/Seal.h"
#include "support/TestDirectory.h"

#include <gtest/gtest.h>

#include <string>

namespace tolvubd {
namespace {

class Starts : public testing::Test {
protected:
    agent::test::TestDirectory directory;
    const std::string path = directory / "starts";
};

TEST_F(Starts, AreNotedOnce) {
    EXPECT_EQ(previousStart(path), "");
    noteStart(path);
    noteStart(path);
    EXPECT_EQ(agent::test::readFile(path), thisStart() + "\n");
    EXPECT_EQ(previousStart(path), "");
}

TEST_F(Starts, TellTheOneBefore) {
    const std::string earlier = makeUuid();
    agent::test::writeFile(path, earlier + "\n");
    EXPECT_EQ(previousStart(path), earlier);
    noteStart(path);
    EXPECT_EQ(previousStart(path), earlier);
}

TEST_F(Starts, AreForgottenInTime) {
    std::string text;
    for (int count = 0; count < 20; ++count) {
        text += makeUuid() + "\n";
    }
    agent::test::writeFile(path, text);
    noteStart(path);
    EXPECT_EQ(agent::test::readFile(path), text.substr(481) + thisStart() + "\n");
}

TEST_F(Starts, AreNotKnownFromWhatIsNoRecordOfThem) {
    for (const std::string& text : {std::string("nonsense\n"), makeUuid() + "\n\n", std::string(9000, 'a')}) {
        agent::test::writeFile(path, text);
        EXPECT_EQ(previousStart(path), "");
        noteStart(path);
        EXPECT_EQ(agent::test::readFile(path), thisStart() + "\n");
    }
}

} // namespace
} // namespace tolvubd
