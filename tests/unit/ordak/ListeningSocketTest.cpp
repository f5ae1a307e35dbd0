#include "ordak/ListeningSocket.h"

#include "os/FileDescriptor.h"
#include "support/ProcessState.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace agent::ordak {
namespace {

constexpr std::uint16_t port = 25567;

bool isOpen(int descriptor) {
    return ::fcntl(descriptor, F_GETFD) >= 0;
}

TEST(ListeningSocketTest, ListensOnAllAddresses) {
    const ListeningSocket socket(port);
    ASSERT_TRUE(socket);
    sockaddr_in address{};
    socklen_t length = sizeof address;
    ASSERT_EQ(::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
    EXPECT_EQ(address.sin_family, AF_INET);
    EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_ANY));
    EXPECT_EQ(ntohs(address.sin_port), port);
    int listens = 0;
    length = sizeof listens;
    ASSERT_EQ(::getsockopt(socket.get(), SOL_SOCKET, SO_ACCEPTCONN, &listens, &length), 0);
    EXPECT_EQ(listens, 1);
    EXPECT_EQ(::fcntl(socket.get(), F_GETFD), FD_CLOEXEC);
}

TEST(ListeningSocketTest, PortInUse) {
    const ListeningSocket first(port);
    ASSERT_TRUE(first);
    const std::size_t before = test::openDescriptors();
    const ListeningSocket second(port);
    EXPECT_EQ(errno, EADDRINUSE);
    EXPECT_FALSE(second);
    EXPECT_EQ(test::openDescriptors(), before);
}

TEST(ListeningSocketTest, OwnerClosesIt) {
    const std::size_t before = test::openDescriptors();
    {
        EXPECT_TRUE(ListeningSocket(port));
    }
    EXPECT_EQ(test::openDescriptors(), before);
}

TEST(ListeningSocketTest, HandedOverItIsTheLibrarys) {
    int descriptor = -1;
    {
        ListeningSocket socket(port);
        descriptor = socket.get();
        socket.handOver();
    }
    EXPECT_TRUE(isOpen(descriptor));
    const os::FileDescriptor library(descriptor);
}

/// As when the library has failed without closing the socket.
TEST(ListeningSocketTest, TakenBackItIsClosed) {
    const std::size_t before = test::openDescriptors();
    ListeningSocket socket(port);
    errno = EMFILE;
    socket.closeIfStillOpen();
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(test::openDescriptors(), before);
}

/// As when the library has closed the socket, and another thread has since got a file or socket with the same
/// descriptor.
TEST(ListeningSocketTest, DescriptorOfAnotherIsLeftAlone) {
    for (const bool isSocket : {false, true}) {
        ListeningSocket socket(port);
        const int number = socket.get();
        const os::FileDescriptor other(isSocket ? ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)
                                                : ::open("/dev/null", O_RDONLY | O_CLOEXEC));
        ASSERT_EQ(::dup3(other.get(), number, O_CLOEXEC), number);
        const os::FileDescriptor reused(number);
        socket.closeIfStillOpen();
        EXPECT_TRUE(isOpen(number));
    }
}

} // namespace
} // namespace agent::ordak
