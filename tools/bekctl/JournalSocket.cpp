#include "JournalSocket.h"

#include "SmallFile.h"
#include "common/PosixError.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

namespace bekctl {

namespace {

constexpr std::string_view journalPath = "/run/systemd/journal/socket";
constexpr const char* pidPath = "/var/run/bekd.pid";
constexpr std::size_t longestPid = 16;
constexpr std::size_t longestText = 48UL * 1024; // a datagram of this size always fits
constexpr ::timeval sendTimeout{10, 0};

/// The field by which the journal attributes a message to the agent's unit; empty if the agent doesn't run.
std::string ownerField() {
    const std::string pid = readFile(pidPath, longestPid).value_or("");
    const bool isNumber =
        !pid.empty() && std::ranges::all_of(pid, [](char each) { return each >= '0' && each <= '9'; });
    return isNumber ? "OBJECT_PID=" + pid + "\n" : "";
}

/// A newline would begin another field.
std::string onOneLine(std::string text) {
    text.resize(std::min(text.size(), longestText));
    std::ranges::replace(text, '\n', ' ');
    return text;
}

} // namespace

JournalSocket::JournalSocket() : socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    ::sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::ranges::copy(journalPath, std::begin(address.sun_path));
    // NOLINTNEXTLINE(*-reinterpret-cast): the socket API's way
    const auto* const where = reinterpret_cast<const ::sockaddr*>(&address);
    if (!socket || ::connect(socket.get(), where, sizeof address) != 0) {
        throw agent::PosixError("There is no journal at " + std::string(journalPath), errno);
    }
    ::setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &sendTimeout, sizeof sendTimeout);
}

void JournalSocket::send(int priority, const std::string& text) const {
    const std::string message = "PRIORITY=" + std::to_string(priority) + "\nSYSLOG_IDENTIFIER=bekd\n" +
                                ownerField() + "MESSAGE=" + onOneLine(text) + "\n";
    ::send(socket.get(), message.data(), message.size(), MSG_NOSIGNAL);
}

} // namespace bekctl
