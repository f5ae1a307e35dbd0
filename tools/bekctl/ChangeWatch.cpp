#include "ChangeWatch.h"

#include <array>
#include <chrono>
#include <poll.h>
#include <sys/inotify.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace bekctl {

namespace {

constexpr int longestMilliseconds = 60'000;
constexpr std::size_t eventBytes = 4096;

} // namespace

ChangeWatch::ChangeWatch(std::string directory)
    : directory(std::move(directory)), events(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    attach();
}

void ChangeWatch::wait() {
    if (!attach()) {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        return;
    }
    ::pollfd asked{events.get(), POLLIN, 0};
    if (::poll(&asked, 1, longestMilliseconds) > 0) {
        // The caller reads the files anyway, so the events are dropped. A directory that goes away takes the
        // watch with it.
        alignas(::inotify_event) std::array<char, eventBytes> taken{};
        while (::read(events.get(), taken.data(), taken.size()) > 0) {
        }
    }
}

/// Adds the watch anew each time: the agent may create the directory later, or somebody may replace it.
bool ChangeWatch::attach() {
    watch = ::inotify_add_watch(events.get(), directory.c_str(),
                                IN_MODIFY | IN_CREATE | IN_MOVED_TO | IN_ONLYDIR);
    return watch >= 0;
}

} // namespace bekctl
