#include "zephane/zephaned/Sessions.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace zephane {
namespace {

class SessionsTest : public ::testing::Test {
protected:
    static constexpr std::size_t most = 3;

    Sessions::Number add() {
        const std::size_t index = stopped.size();
        stopped.emplace_back();
        return sessions.add([this, index](const std::string& why) { stopped[index] = why; });
    }

    const wire::ImageName image{"host1/data", 7};
    const wire::ImageName other{"host2/data", 7};
    std::vector<std::string> stopped; ///< for each session, why it was stopped; "": it wasn't
    Sessions sessions{most};
};

TEST_F(SessionsTest, StopTheOldestThatSaysNothingWhenThereAreTooMany) {
    for (std::size_t count = 0; count < Sessions::mostPending; ++count) {
        add();
    }
    EXPECT_EQ(stopped.front(), "");
    add();
    EXPECT_EQ(stopped.front(), "too many others want to connect");
    EXPECT_EQ(stopped.at(1), "");
    EXPECT_FALSE(sessions.prove(1, image));
    EXPECT_TRUE(sessions.prove(2, image));
}

TEST_F(SessionsTest, AreNotStoppedForStrangers) {
    ASSERT_TRUE(sessions.prove(add(), image));
    for (std::size_t count = 0; count < 2 * Sessions::mostPending; ++count) {
        add();
    }
    EXPECT_EQ(stopped.front(), "");
}

TEST_F(SessionsTest, HaveALimit) {
    for (std::size_t count = 0; count < most; ++count) {
        EXPECT_TRUE(sessions.prove(add(), image));
    }
    const Sessions::Number late = add();
    EXPECT_FALSE(sessions.prove(late, image));
    sessions.remove(1);
    EXPECT_TRUE(sessions.prove(late, image));
    sessions.setLimit(most + 1);
    EXPECT_TRUE(sessions.prove(add(), image));
}

TEST_F(SessionsTest, OfOneImageLeaveRoomForThoseOfOthers) {
    sessions.setLimit(2 * Sessions::mostPerImage);
    for (std::size_t count = 0; count < Sessions::mostPerImage; ++count) {
        EXPECT_TRUE(sessions.prove(add(), image));
    }
    const Sessions::Number late = add();
    EXPECT_FALSE(sessions.prove(late, image));
    EXPECT_TRUE(sessions.prove(add(), other));
    sessions.remove(1);
    EXPECT_TRUE(sessions.prove(late, image));
}

TEST_F(SessionsTest, AreStoppedByTheirImage) {
    ASSERT_TRUE(sessions.prove(add(), image));
    ASSERT_TRUE(sessions.prove(add(), other));
    add();
    sessions.stopMatching([this](const wire::ImageName& name) { return name == other; }, "gone");
    EXPECT_EQ(stopped, (std::vector<std::string>{"", "gone", ""}));
}

TEST_F(SessionsTest, AreAllStoppedAtTheEndAndThoseThatComeThen) {
    ASSERT_TRUE(sessions.prove(add(), image));
    add();
    sessions.stopAll("end");
    const Sessions::Number late = add();
    EXPECT_EQ(stopped, (std::vector<std::string>{"end", "end", "end"}));
    EXPECT_FALSE(sessions.prove(late, image));
}

} // namespace
} // namespace zephane
