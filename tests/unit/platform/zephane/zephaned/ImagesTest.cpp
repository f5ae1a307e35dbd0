#include "zephane/zephaned/Images.h"

#include "zephane/zephaned/Refusal.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>
#include <tuple>

namespace zephane {
namespace {

/// An engine that ends when the test says so.
class FakeEngine : public IEngine {
public:
    [[nodiscard]] const std::string& socket() const override { return path; }
    [[nodiscard]] bool hasEnded() const override { return isEnded; }
    void stop() override { isStopped = true; }

    bool isStopped = false;
    bool isEnded = false;

private:
    std::string path = "/socket";
};

class ImagesTest : public ::testing::Test {
protected:
    struct Started {
        std::shared_ptr<FakeEngine> engine;
        ImageConfig config;
        bool isWritable;
    };

    static constexpr bool writing = true;
    static constexpr bool reading = false;

    ImagesTest() { images.configure({config()}); }

    [[nodiscard]] static ImageConfig config(const std::string& place = "/srv/x") {
        return {{"host1/data", 7}, "secret", place};
    }
    [[nodiscard]] static wire::ClientId client(std::uint8_t number) { return {number}; }
    std::optional<Images::Lease> open(std::uint8_t number, bool isWritable) {
        return images.open(name, client(number), isWritable);
    }
    int codeOf(std::uint8_t number, bool isWritable) {
        try {
            open(number, isWritable);
        } catch (const Refusal& refusal) {
            return refusal.code;
        }
        return 0;
    }
    [[nodiscard]] FakeEngine& started(std::size_t index) const { return *all.at(index).engine; }

    const wire::ImageName name{"host1/data", 7};
    std::vector<Started> all;
    Images images{[this](const ImageConfig& image, bool isWritable) {
        all.push_back({std::make_shared<FakeEngine>(), image, isWritable});
        return all.back().engine;
    }};
};

TEST_F(ImagesTest, AreStartedWithTheFirstUseAndStoppedWithTheLast) {
    auto one = open(1, writing);
    auto two = open(1, writing);
    ASSERT_EQ(all.size(), 1U);
    EXPECT_TRUE(all.at(0).isWritable);
    EXPECT_EQ(&one->engine(), &two->engine());
    one.reset();
    EXPECT_FALSE(started(0).isStopped);
    two.reset();
    EXPECT_TRUE(started(0).isStopped);
}

TEST_F(ImagesTest, HaveOneWriter) {
    auto writer = open(1, writing);
    EXPECT_EQ(codeOf(2, writing), -EBUSY);
    writer.reset();
    started(0).isEnded = true;
    EXPECT_EQ(codeOf(2, writing), 0);
}

TEST_F(ImagesTest, HaveReadersBesideTheWriterOnAnEngineThatCanNotWrite) {
    const auto writer = open(1, writing);
    const auto reader = open(2, reading);
    const auto other = open(3, reading);
    ASSERT_EQ(all.size(), 2U);
    EXPECT_FALSE(all.at(1).isWritable);
    EXPECT_EQ(&reader->engine(), &other->engine());
}

TEST_F(ImagesTest, NeverHaveTwoEnginesThatWrite) {
    open(1, writing).reset();
    ASSERT_TRUE(started(0).isStopped);
    EXPECT_FALSE(open(1, writing));
    EXPECT_FALSE(open(2, writing));
    EXPECT_EQ(all.size(), 1U);
    started(0).isEnded = true;
    EXPECT_TRUE(open(2, writing));
    EXPECT_EQ(all.size(), 2U);
}

TEST_F(ImagesTest, GetANewEngineForOneThatHasDied) {
    const auto old = open(1, writing);
    started(0).isEnded = true;
    EXPECT_EQ(codeOf(2, writing), -EBUSY);
    const auto lease = open(1, writing);
    ASSERT_TRUE(lease);
    EXPECT_EQ(all.size(), 2U);
    EXPECT_EQ(&lease->engine(), &started(1));
}

TEST_F(ImagesTest, AreFreeAgainAfterAnEngineThatCanNotBeStarted) {
    Images broken(
        [](const ImageConfig&, bool) -> std::shared_ptr<IEngine> { throw std::runtime_error("no"); });
    broken.configure({config()});
    EXPECT_THROW(std::ignore = broken.open(name, client(1), writing), std::runtime_error);
    EXPECT_THROW(std::ignore = broken.open(name, client(2), writing), std::runtime_error);
}

TEST_F(ImagesTest, HaveAKeyAsLongAsTheyAreServed) {
    EXPECT_TRUE(images.findKey(name));
    EXPECT_FALSE(images.findKey({"host1/data", 8}));
    EXPECT_FALSE(images.findKey({"host1", 7}));
    images.configure({});
    EXPECT_FALSE(images.isServed(name));
    EXPECT_FALSE(images.findKey(name));
    EXPECT_EQ(codeOf(1, writing), -EACCES);
}

TEST_F(ImagesTest, KeepTheirUsesOverANewConfiguration) {
    auto lease = open(1, writing);
    images.configure({config("/srv/y")});
    EXPECT_EQ(codeOf(2, writing), -EBUSY);
    EXPECT_EQ(open(1, writing)->engine().socket(), lease->engine().socket());
    EXPECT_EQ(all.size(), 1U);
    lease.reset();
    started(0).isEnded = true;
    const auto next = open(2, writing);
    EXPECT_EQ(all.back().config, config("/srv/y"));
}

TEST_F(ImagesTest, KnowAnEngineThatEndsWhenTheImageComesBack) {
    open(1, writing).reset();
    images.configure({});
    images.configure({config()});
    EXPECT_FALSE(open(2, writing));
    started(0).isEnded = true;
    EXPECT_TRUE(open(2, writing));
}

TEST_F(ImagesTest, CanBeGivenUpAfterTheyHaveGone) {
    auto lease = open(1, writing);
    images.configure({});
    lease.reset();
    EXPECT_TRUE(started(0).isStopped);
}

} // namespace
} // namespace zephane
