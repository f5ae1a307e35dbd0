#include "ordak/HTTPServer.h"

#include "common/Directory.h"
#include "common/TerminationSignals.h"
#include "ordak/LibraryLog.h"
#include "os/FileDescriptor.h"
#include "support/Messages.h"
#include "support/ProcessState.h"
#include "support/RecordingLogger.h"
#include "support/TestCertificates.h"
#include "support/TestDirectory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <netinet/in.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace agent::ordak {
namespace {

using Lines = std::vector<test::RecordingLogger::Line>;

/// A TCP socket of the test's own, connected to the server's port or bound to it.
class Socket {
public:
    [[nodiscard]] bool connects() const {
        return ::connect(descriptor.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    }
    [[nodiscard]] bool listens() const {
        return ::bind(descriptor.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
               ::listen(descriptor.get(), 1) == 0;
    }

private:
    static sockaddr_in loopback() {
        sockaddr_in made{};
        made.sin_family = AF_INET;
        made.sin_port = htons(25567);
        made.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return made;
    }

    os::FileDescriptor descriptor{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    sockaddr_in address = loopback();
};

class HTTPServerTest : public testing::Test {
protected:
    [[nodiscard]] std::unique_ptr<HTTPServer> make(const std::string& pemKey) {
        return std::make_unique<HTTPServer>(
            record.logger, pemKey, authority.issue(key, {.commonName = "agent"}).pem(), authority.pem(),
            [](int, const std::string&, const std::string&, const std::string&, const HTTPServer::Arguments&,
               const std::string&, std::string&, std::string&) { return 200; });
    }

    test::RecordingLogger record;
    test::DeviceAuthority authority;
    test::TestKey key;
};

TEST_F(HTTPServerTest, Lifecycle) {
    std::unique_ptr<HTTPServer> server = make(key.pem());
    EXPECT_FALSE(Socket().connects());
    server->start();
    EXPECT_TRUE(Socket().connects());
    server->stop();
    EXPECT_FALSE(Socket().connects());
    server.reset();
    EXPECT_EQ(record.lines(), (Lines{{4, "HTTP server starting"},
                                     {3, "HTTP server started"},
                                     {4, "HTTP server stopping"},
                                     {3, "HTTP server stopped"},
                                     {4, "HTTP server stopping"},
                                     {3, "HTTP server stopped"},
                                     {4, "HTTP server destroyed"}}));
}

TEST_F(HTTPServerTest, StopWithoutAStart) {
    const std::unique_ptr<HTTPServer> server = make(key.pem());
    EXPECT_NO_THROW(server->stop());
    EXPECT_NO_THROW(server->stop());
}

TEST_F(HTTPServerTest, SecondStartBeginsAnew) {
    const std::size_t before = test::openDescriptors();
    {
        const std::unique_ptr<HTTPServer> server = make(key.pem());
        server->start();
        const std::size_t started = test::openDescriptors();
        server->start();
        EXPECT_EQ(test::openDescriptors(), started);
        EXPECT_TRUE(Socket().connects());
    }
    EXPECT_EQ(test::openDescriptors(), before);
    EXPECT_FALSE(Socket().connects());
}

TEST_F(HTTPServerTest, PortInUse) {
    const Socket other;
    ASSERT_TRUE(other.listens());
    const std::unique_ptr<HTTPServer> server = make(key.pem());
    const std::string text = "HTTP server failed to start with err: " + std::to_string(EADDRINUSE);
    EXPECT_EQ(test::messageOf<std::runtime_error>([&] { server->start(); }), text);
    EXPECT_EQ(record.lines(), (Lines{{4, "HTTP server starting"}, {0, text}}));
}

TEST_F(HTTPServerTest, UselessKey) {
    const std::size_t before = test::openDescriptors();
    for (const std::string& useless : {std::string(), std::string("rubbish"), test::TestKey().pem()}) {
        const std::unique_ptr<HTTPServer> server = make(useless);
        EXPECT_TRUE(test::messageOf<std::runtime_error>([&] {
                        server->start();
                    }).starts_with("HTTP server failed to start with err: "));
    }
    EXPECT_EQ(test::openDescriptors(), before);
    EXPECT_FALSE(Socket().connects());
}

/// The mask of signals that a thread of this process blocks.
std::uint64_t blockedSignals(const std::string& thread) {
    const std::string status = test::readFile("/proc/self/task/" + thread + "/status");
    return std::stoull(status.substr(status.find("SigBlk:") + 7), nullptr, 16);
}

TEST_F(HTTPServerTest, ItsThreadsTakeNoTerminationSignal) {
    const std::vector<std::string> before = dir::list("/proc/self/task");
    const std::unique_ptr<HTTPServer> server = make(key.pem());
    server->start();
    const Socket client;
    ASSERT_TRUE(client.connects());
    std::size_t threads = 0;
    for (const std::string& thread : dir::list("/proc/self/task")) {
        if (std::find(before.begin(), before.end(), thread) != before.end()) {
            continue;
        }
        ++threads;
        for (const int signal : terminationSignals) {
            EXPECT_NE(blockedSignals(thread) & (std::uint64_t{1} << (signal - 1)), 0U) << signal;
        }
    }
    EXPECT_GE(threads, 1U);
    EXPECT_EQ(blockedSignals(std::to_string(::getpid())) & (1U << (SIGTERM - 1)), 0U);
}

[[gnu::format(printf, 2, 3)]] void logLike(info::Logger& logger, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    logLibraryMessage(logger, format, arguments);
    va_end(arguments);
}

TEST_F(HTTPServerTest, MessagesOfTheLibrary) {
    logLike(record.logger, "Failed to bind to port %u: %s\n", 25567U, "in use");
    logLike(record.logger, "two\n\n");
    logLike(record.logger, "%s", "");
    logLike(record.logger, "%s", std::string(100'000, 'x').c_str());
    EXPECT_EQ(record.lines(), (Lines{{4, "(libmicrohttpd) Failed to bind to port 25567: in use"},
                                     {4, "(libmicrohttpd) two\n"},
                                     {4, "(libmicrohttpd) "},
                                     {4, "(libmicrohttpd) " + std::string(100'000, 'x')}}));
}

} // namespace
} // namespace agent::ordak
