#include "SystemLog.h"

#include "FileAccess.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <exception>
#include <iterator>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace tolvubd {

namespace {

constexpr int daemonFacility = 3 << 3;

/// The time in the format of the log's protocol, in any locale of the program.
std::string timestamp() {
    static constexpr std::array<const char*, 12> months = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                           "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    ::localtime_r(&now, &local);
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%s %2d %02d:%02d:%02d",
                  months.at(static_cast<std::size_t>(local.tm_mon)), local.tm_mday, local.tm_hour,
                  local.tm_min, local.tm_sec);
    return text.data();
}

void sendToLog(const std::string& message) {
    const os::FileDescriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    static constexpr std::string_view logSocket = "/dev/log";
    std::ranges::copy(logSocket, std::begin(address.sun_path));
    ::sendto(socket.get(), message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
             reinterpret_cast<const sockaddr*>(&address), // NOLINT(*-reinterpret-cast): the socket API's way
             sizeof address);
}

} // namespace

void logLine(Severity severity, const std::string& text) noexcept {
    const int before = errno;
    try {
        sendToLog("<" + std::to_string(daemonFacility | static_cast<int>(severity)) + ">" + timestamp() +
                  " tolvubd[" + std::to_string(::getpid()) + "]: " + text);
    } catch (const std::exception&) { // NOLINT(bugprone-empty-catch): nobody is left to tell
    }
    errno = before;
}

} // namespace tolvubd
