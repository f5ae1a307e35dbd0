#include "common/StandardError.h"

#include "common/BrokenPipeGuard.h"

#include <climits>
#include <poll.h>
#include <unistd.h>

namespace agent {

namespace {

/// If poll() reports room in a pipe, at least this many bytes fit into it.
constexpr std::size_t wholeWrite = PIPE_BUF;

bool hasRoom() noexcept {
    ::pollfd asked{STDERR_FILENO, POLLOUT, 0};
    return ::poll(&asked, 1, 0) == 1 && (asked.revents & POLLOUT) != 0;
}

} // namespace

void writeStandardError(std::string_view text) noexcept {
    const BrokenPipeGuard sigpipeBlocked;
    if (hasRoom()) {
        const std::string_view whole = text.substr(0, wholeWrite);
        // No retry: there is no other place to report text that standard error doesn't accept.
        [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, whole.data(), whole.size());
    }
}

} // namespace agent
