#include "zephane/zephaned/Server.h"

#include "support/TestDirectory.h"
#include "support/Waiting.h"
#include "zephane/ftp/ZephaneFTPClient.h"
#include "zephane/socket/BasicSocket.h"
#include "zephane/socket/Compressor.h"
#include "zephane/socket/Decompressor.h"
#include "zephane/socket/TLSTransport.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <thread>

namespace zephane {
namespace {

using agent::test::eventually;

constexpr std::size_t size = 8 << 20;
constexpr unsigned long compare = 1;
constexpr unsigned long compression = 2;
constexpr unsigned long writable = 8;

/// A server in this process with real NBD servers on files. To it, all clients are the same client.
class ServerTest : public ::testing::Test {
protected:
    ServerTest() {
        agent::test::writeFile(path("image"), std::string(size, 'o'));
        config.listen = {{"127.0.0.1", 0}};
        config.runtimeDirectory = path("run");
        config.images.push_back({{"host1/data", 7}, "secret", path("image")});
        save();
        server.emplace(ConfigFile(path("zephaned.json")), config, log);
        thread = std::thread([this] { server->run(); });
        EXPECT_TRUE(says("ready"));
    }
    ~ServerTest() override {
        if (thread.joinable()) {
            end();
        }
    }

    [[nodiscard]] std::string path(const std::string& name) const { return (directory / name).str(); }
    [[nodiscard]] std::string logged() const { return agent::test::readFile(path("log")); }
    bool says(const std::string& text) {
        return eventually([&] { return logged().find(text) != std::string::npos; });
    }
    void save() { ConfigFile(path("zephaned.json")).save(config); }
    void reload() {
        save();
        ::kill(::getpid(), SIGHUP);
    }
    void end() {
        ::kill(::getpid(), SIGTERM);
        thread.join();
    }
    /// Whether any NBD server's socket exists.
    [[nodiscard]] bool hasEngine() const { return !std::filesystem::is_empty(path("run")); }
    [[nodiscard]] unsigned short port() const {
        const std::string text = logged();
        const std::string mark = "listening at 127.0.0.1:";
        return static_cast<unsigned short>(std::stoul(text.substr(text.find(mark) + mark.size())));
    }
    [[nodiscard]] ZephaneFTPClient client(unsigned long flags, const std::string& secret = "secret",
                                          const std::string& image = "host1/data") const {
        auto socket = std::make_unique<BasicSocket>(std::make_unique<TLSTransport>("", ""));
        socket->filters().reading.push_back(std::make_shared<Decompressor>());
        socket->filters().writing.push_back(std::make_shared<Compressor>());
        return {std::move(socket), "127.0.0.1", port(), image, 7, flags, secret};
    }

    Config config;

private:
    agent::test::TestDirectory directory;
    os::FileDescriptor file{::open(path("log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600)};
    Log log{file.get()};
    std::optional<Server> server;
    std::thread thread;
};

TEST_F(ServerTest, CarriesWhatIsWrittenAndRead) {
    for (const unsigned long flags : {writable, writable | compression, writable | compression | compare}) {
        ZephaneFTPClient one = client(flags);
        ASSERT_EQ(one.open().code, 0);
        EXPECT_EQ(one.size(), size);
        Status status;
        const std::string data(3'000'000, static_cast<char>('a' + flags));
        one.seek(12345, 0);
        EXPECT_EQ(one.write(data.data(), data.size(), 0, status), static_cast<std::int64_t>(data.size()));
        std::string back(data.size(), '\0');
        one.seek(12345, 0);
        EXPECT_EQ(one.read(back.data(), back.size(), status), static_cast<std::int64_t>(back.size()));
        EXPECT_EQ(back, data);
        EXPECT_EQ(one.close().code, 0);
        EXPECT_EQ(agent::test::readFile(path("image")).substr(12345, data.size()), data);
    }
    EXPECT_TRUE(says("writable, compressed, comparing"));
    EXPECT_TRUE(eventually([this] { return !hasEngine(); }));
}

TEST_F(ServerTest, TellsNobodyWhetherThereIsAnImage) {
    const Status wrong = client(writable, "a guess").open();
    const Status unknown = client(writable, "secret", "host2/data").open();
    EXPECT_EQ(wrong.code, -EACCES);
    EXPECT_EQ(unknown.code, wrong.code);
    EXPECT_EQ(unknown.text, wrong.text);
    EXPECT_TRUE(says("for host2/data 7: there is no such image"));
    EXPECT_FALSE(hasEngine());
    EXPECT_EQ(logged().find("a guess"), std::string::npos);
}

TEST_F(ServerTest, SharesAnEngineAmongTheConnectionsOfAClient) {
    ZephaneFTPClient one = client(writable);
    ZephaneFTPClient two = client(writable);
    ASSERT_EQ(one.open().code, 0);
    ASSERT_EQ(two.open().code, 0);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(path("run")), {}), 1);
    EXPECT_EQ(one.close().code, 0);
    Status status;
    EXPECT_EQ(two.write("x", 1, 0, status), 1);
    EXPECT_EQ(two.close().code, 0);
}

TEST_F(ServerTest, ReadsTheConfigurationAgain) {
    ZephaneFTPClient one = client(writable | compression);
    ASSERT_EQ(one.open().code, 0);
    config.images.push_back({{"host2/data", 7}, "other", std::vector<std::string>{"memory", "1M"}});
    config.compression = false;
    reload();
    ASSERT_TRUE(says("has been read again"));
    ZephaneFTPClient two = client(writable | compression, "other", "host2/data");
    EXPECT_EQ(two.open().code, 0);
    EXPECT_TRUE(says(", writable\n"));
    Status status;
    EXPECT_EQ(one.write("x", 1, 0, status), 1) << "a session under way isn't disturbed";
    config.images.erase(config.images.begin());
    reload();
    EXPECT_TRUE(says("the image isn't served any more"));
    EXPECT_EQ(one.write("x", 1, 0, status), 0);
    EXPECT_LT(status.code, 0);
    EXPECT_EQ(two.write("x", 1, 0, status), 1);
}

TEST_F(ServerTest, StaysAsItWasWithAConfigurationThatIsWrong) {
    agent::test::writeFile(path("zephaned.json"), "{\"images\": 7}");
    ::kill(::getpid(), SIGHUP);
    EXPECT_TRUE(says("the configuration stays as it was: " + path("zephaned.json") + ": images: "));
    EXPECT_EQ(client(writable).open().code, 0);
}

TEST_F(ServerTest, HasALimitOfSessions) {
    config.maxSessions = 1;
    reload();
    ASSERT_TRUE(says("has been read again"));
    ZephaneFTPClient one = client(writable);
    ASSERT_EQ(one.open().code, 0);
    EXPECT_EQ(client(writable).open().code, -EAGAIN);
    EXPECT_EQ(one.close().code, 0);
    EXPECT_TRUE(eventually([this] { return client(writable).open().code == 0; }));
}

TEST_F(ServerTest, RefusesWritersWhereNothingCanBeWritten) {
    config.images.push_back({{"empty", 7}, "s", std::vector<std::string>{"memory", "0"}});
    config.images.push_back({{"readonly", 7}, "s", std::vector<std::string>{"pattern", "1M"}});
    config.images.push_back({{"broken", 7}, "s", "/nowhere/image"});
    reload();
    ASSERT_TRUE(says("has been read again"));
    for (const std::string image : {"empty", "readonly", "broken"}) {
        EXPECT_EQ(client(writable, "s", image).open().code, -EIO) << image;
    }
    EXPECT_EQ(client(0, "s", "readonly").open().code, 0);
    EXPECT_TRUE(says("empty 7: the engine can't write, or its image is empty"));
    EXPECT_TRUE(says("readonly 7: the engine can't write"));
    EXPECT_TRUE(says("broken 7: nbdkit: error"));
}

TEST_F(ServerTest, EndsItsSessionsAndEnginesInOrder) {
    ZephaneFTPClient one = client(writable);
    ASSERT_EQ(one.open().code, 0);
    end();
    EXPECT_FALSE(hasEngine());
    EXPECT_NE(logged().find("the server stops"), std::string::npos);
    EXPECT_TRUE(logged().ends_with(" info: ended\n"));
    Status status;
    EXPECT_EQ(one.write("x", 1, 0, status), 0);
    EXPECT_LT(status.code, 0);
}

} // namespace
} // namespace zephane
