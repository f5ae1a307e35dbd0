#include "common/config/JSONConfigDataProvider.h"

#include "common/Directory.h"
#include "common/File.h"
#include "common/PosixError.h"
#include "support/DirectoryWatch.h"
#include "support/Messages.h"
#include "support/TestDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <sys/mount.h>
#include <thread>

namespace agent {
namespace {

using nlohmann::json;
using test::messageOf;

class JSONConfigDataProviderTest : public testing::Test {
protected:
    std::string failureOf(const std::string& content) {
        test::writeFile(path, content);
        std::string failure = test::messageOf<std::runtime_error>([&] { JSONConfigDataProvider{path}; });
        EXPECT_EQ(test::readFile(path), content);
        return failure;
    }

    test::TestDirectory directory;
    const Path path = directory / "config.json";
};

TEST_F(JSONConfigDataProviderTest, MissingFileIsAnEmptyStore) {
    const JSONConfigDataProvider provider(path);
    EXPECT_EQ(provider.dump(), json::object());
    EXPECT_EQ(provider.get("a", std::string("x")), "x");
    EXPECT_EQ(provider.get("a", 5UL), 5U);
    EXPECT_TRUE(provider.get("a", true));
    EXPECT_FALSE(file::exists(path));
}

TEST_F(JSONConfigDataProviderTest, KeysAreWholeNames) {
    JSONConfigDataProvider provider(path);
    provider.set("a.b.c", 1UL);
    provider.set("a.b", true);
    provider.set("a", std::string("text"));
    EXPECT_EQ(json::parse(test::readFile(path)), (json{{"a.b.c", 1}, {"a.b", true}, {"a", "text"}}));
    const JSONConfigDataProvider again(path);
    EXPECT_EQ(again.get("a.b.c", 0UL), 1U);
    EXPECT_TRUE(again.get("a.b", false));
    EXPECT_EQ(again.get("a", std::string()), "text");
}

TEST_F(JSONConfigDataProviderTest, ValueOfAnotherTypeThrowsTheTypeError) {
    test::writeFile(path, R"({ "text": "x", "number": 1, "flag": true, "huge": 1e300 })");
    const JSONConfigDataProvider provider(path);
    EXPECT_THROW((void)provider.get("text", 0UL), json::type_error);
    EXPECT_THROW((void)provider.get("flag", 0UL), json::type_error);
    EXPECT_THROW((void)provider.get("huge", 0UL), json::type_error);
    EXPECT_THROW((void)provider.get("number", false), json::type_error);
    EXPECT_THROW((void)provider.get("number", std::string()), json::type_error);
}

TEST_F(JSONConfigDataProviderTest, DocumentThatIsNoObjectHoldsNothing) {
    test::writeFile(path, "[1, 2]");
    JSONConfigDataProvider provider(path);
    EXPECT_EQ(provider.get("a", 5UL), 5U);
    EXPECT_EQ(provider.dump(), json::array({1, 2}));
    EXPECT_THROW(provider.set("a", 6UL), json::type_error);
    EXPECT_EQ(test::readFile(path), "[1, 2]");
}

TEST_F(JSONConfigDataProviderTest, FileThatDoesNotParseIsNamed) {
    const std::string prefix = "Could not read the configuration file \"" + path.str() + "\": ";
    for (const std::string content :
         {"", "{", "{ \"a\": }", "not json", "{} trailing", "{ \"a\": \"\xff\" }"}) {
        EXPECT_THAT(failureOf(content), testing::StartsWith(prefix)) << content;
    }
}

TEST_F(JSONConfigDataProviderTest, EveryTruncationIsRefusedWithoutHarm) {
    const std::string whole =
        R"({ "log.lifetimeHours": 72, "autoupdate.channel": "\u00e4", "x": [{"y": null}] })";
    for (std::size_t length = 0; length < whole.size(); ++length) {
        EXPECT_NE(failureOf(whole.substr(0, length)), "nothing was thrown") << length;
    }
}

TEST_F(JSONConfigDataProviderTest, DepthAndSizeAreBounded) {
    EXPECT_THAT(failureOf(std::string(500'000, '[')), testing::HasSubstr("nested deeper than 128 levels"));
    EXPECT_THAT(failureOf("\"" + std::string(2'000'000, 'x') + "\""),
                testing::HasSubstr("larger than 1048576 bytes"));
}

/// Otherwise the next start would fail to read what this process has stored.
TEST_F(JSONConfigDataProviderTest, WhatCouldNotBeReadBackIsRefused) {
    json deep = 1;
    for (int level = 0; level < 128; ++level) { // the document itself adds one more level
        deep = json::array({deep});
    }
    JSONConfigDataProvider provider(path);
    const json pairs = {{"deep", deep}};
    EXPECT_THAT(messageOf<std::runtime_error>([&] { provider.set(pairs); }),
                testing::HasSubstr("nested deeper than 128 levels"));
    provider.set("channel", std::string(1'000'000, 'x'));
    const std::string before = test::readFile(path);
    EXPECT_EQ(messageOf<std::runtime_error>([&] { provider.set("channel", std::string(1'100'000, 'x')); }),
              "The configuration could not be read back: larger than 1048576 bytes");
    EXPECT_THROW(provider.set("other", std::string(100'000, 'x')), std::runtime_error); // too large together
    EXPECT_EQ(test::readFile(path), before);
    EXPECT_EQ(JSONConfigDataProvider(path).dump(), provider.dump());
}

TEST_F(JSONConfigDataProviderTest, ManyPairsAreOneWrite) {
    const std::vector<std::string> before = dir::list(directory.path());
    json pairs = json::object();
    for (int number = 0; number < 100; ++number) {
        pairs["key." + std::to_string(number)] = number;
    }
    JSONConfigDataProvider provider(path);
    const test::DirectoryWatch watch(directory.path());
    provider.set(pairs);
    EXPECT_EQ(watch.renames(), 1U);
    EXPECT_EQ(JSONConfigDataProvider(path).dump(), pairs);
    EXPECT_EQ(dir::list(directory.path()).size(), before.size() + 1);
}

TEST_F(JSONConfigDataProviderTest, NoPairsAreNoWrite) {
    JSONConfigDataProvider provider(path);
    provider.set(json::object());
    EXPECT_FALSE(file::exists(path));
}

TEST_F(JSONConfigDataProviderTest, FullDiskKeepsTheOldFileAndTheOldValue) {
    const std::string small = directory / "small";
    dir::make(small);
    ASSERT_EQ(::mount("tmpfs", small.c_str(), "tmpfs", 0, "size=16k"), 0);
    const std::string onSmall = small + "/config.json";
    JSONConfigDataProvider provider(onSmall);
    provider.set("channel", std::string("old"));
    const std::string before = test::readFile(onSmall);
    EXPECT_THROW(provider.set("channel", std::string(100'000, 'x')), PosixError);
    EXPECT_EQ(test::readFile(onSmall), before);
    EXPECT_EQ(provider.get("channel", std::string()), "old");
    provider.set("channel", std::string("new"));
    EXPECT_EQ(JSONConfigDataProvider(onSmall).get("channel", std::string()), "new");
    ASSERT_EQ(::umount(small.c_str()), 0);
}

TEST_F(JSONConfigDataProviderTest, ReadersMayMeetAWriter) {
    JSONConfigDataProvider provider(path);
    provider.set("number", 0UL);
    std::atomic<bool> done = false;
    std::thread reader([&] {
        while (!done) {
            EXPECT_LE(provider.get("number", 0UL), 200U);
            EXPECT_TRUE(provider.dump().is_object());
        }
    });
    for (unsigned long i = 1; i <= 200; ++i) {
        provider.set("number", i);
        provider.set("other." + std::to_string(i), i);
    }
    done = true;
    reader.join();
    EXPECT_EQ(provider.get("number", 0UL), 200U);
}

} // namespace
} // namespace agent
