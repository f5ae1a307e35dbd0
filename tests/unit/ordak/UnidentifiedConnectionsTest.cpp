#include "ordak/UnidentifiedConnections.h"

#include "os/FileDescriptor.h"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <sys/socket.h>

namespace agent::ordak {
namespace {

/// A connection of which the test has both ends.
class Connection {
public:
    Connection() {
        std::array<int, 2> ends{-1, -1};
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()), 0);
        ours = os::FileDescriptor(ends[0]);
        theirs = os::FileDescriptor(ends[1]);
    }

    [[nodiscard]] int socket() const { return ours.get(); }
    [[nodiscard]] bool isOpen() const {
        char byte = 0;
        return ::recv(theirs.get(), &byte, 1, 0) < 0; // neither data nor an end of file
    }

private:
    os::FileDescriptor ours;
    os::FileDescriptor theirs;
};

TEST(UnidentifiedConnectionsTest, OldestMakesRoom) {
    std::array<Connection, 4> connections;
    UnidentifiedConnections unidentified(2, std::chrono::hours(1));
    unidentified.add(connections[0].socket());
    unidentified.add(connections[1].socket());
    EXPECT_TRUE(connections[0].isOpen());
    unidentified.add(connections[2].socket());
    EXPECT_FALSE(connections[0].isOpen());
    EXPECT_TRUE(connections[1].isOpen());
    unidentified.add(connections[3].socket());
    EXPECT_FALSE(connections[1].isOpen());
    EXPECT_TRUE(connections[2].isOpen());
    EXPECT_TRUE(connections[3].isOpen());
}

TEST(UnidentifiedConnectionsTest, WhoHasLeftIsSafe) {
    std::array<Connection, 4> connections;
    UnidentifiedConnections unidentified(2, std::chrono::hours(1));
    unidentified.add(connections[0].socket());
    EXPECT_TRUE(unidentified.remove(connections[0].socket()));
    EXPECT_FALSE(unidentified.remove(connections[0].socket()));
    for (std::size_t index = 1; index < connections.size(); ++index) {
        unidentified.add(connections.at(index).socket());
    }
    EXPECT_TRUE(connections[0].isOpen());
    EXPECT_FALSE(connections[1].isOpen());
    EXPECT_FALSE(unidentified.remove(connections[1].socket())); // it had already been closed
}

TEST(UnidentifiedConnectionsTest, WhoHasBeenHereForTooLongGoesWhenTheNextOneComes) {
    std::array<Connection, 2> connections;
    UnidentifiedConnections unidentified(2, std::chrono::seconds(-1)); // any time is too long
    unidentified.add(connections[0].socket());
    EXPECT_TRUE(connections[0].isOpen());
    unidentified.add(connections[1].socket());
    EXPECT_FALSE(connections[0].isOpen());
    EXPECT_TRUE(connections[1].isOpen());
}

} // namespace
} // namespace agent::ordak
