#include "Processes.h"

#include "os/FileDescriptor.h"

#include <gtest/gtest.h>

#include <ctime>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace bekctl {
namespace {

constexpr const char* table =
    "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode\n"
    "   0: 0100007F:63DF 0100007F:8000 01 00000000:00000000 00:00000000 00000000     0        0 1184 1 0\n"
    "   1: 00000000:63DF 00000000:0000 0A 00000000:00000000 00:00000000 00000000     0        0 1185 1 0\n"
    "   2: 00000000:0016 00000000:0000 0A 00000000\n";

TEST(FindListeningSocket, TakesOneThatListens) {
    EXPECT_EQ(findListeningSocket(table, 25567), "1185");
    EXPECT_EQ(findListeningSocket(table, 22), ""); // a truncated line
    EXPECT_EQ(findListeningSocket(table, 80), "");
}

TEST(FindListener, IsTheProcessThatHasTheSocket) {
    const os::FileDescriptor listening(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* const generic = static_cast<sockaddr*>(static_cast<void*>(&address));
    ASSERT_EQ(::bind(listening.get(), generic, size), 0);
    ASSERT_EQ(::getsockname(listening.get(), generic, &size), 0);
    const unsigned short port = ntohs(address.sin_port);
    EXPECT_FALSE(findListener(port));
    ASSERT_EQ(::listen(listening.get(), 1), 0);
    const std::optional<Process> found = findListener(port);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->pid, ::getpid());
}

TEST(FindProcess, KnowsNameAndBegin) {
    const std::optional<Process> own = findProcess(::getpid());
    ASSERT_TRUE(own);
    EXPECT_EQ(own->name, std::string("test_tools_bekctl").substr(0, 15));
    EXPECT_LE(own->begin, std::time(nullptr) + 1);
    EXPECT_GT(own->begin, std::time(nullptr) - 3600);
    EXPECT_FALSE(own->isReplaced);
    EXPECT_FALSE(findProcess(1 << 30));
}

} // namespace
} // namespace bekctl
