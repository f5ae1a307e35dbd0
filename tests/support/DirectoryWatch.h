#pragma once

#include "os/FileDescriptor.h"

#include <array>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <sys/inotify.h>
#include <unistd.h>

namespace agent::test {

/// Counts the files that are moved into a directory. A file that is replaced atomically counts as one.
class DirectoryWatch {
public:
    explicit DirectoryWatch(const std::string& directory) {
        if (::inotify_add_watch(events.get(), directory.c_str(), IN_MOVED_TO) < 0) {
            throw std::runtime_error("no watch of " + directory);
        }
    }

    /// How many files were moved since the last call.
    [[nodiscard]] std::size_t renames() const {
        std::size_t count = 0;
        alignas(inotify_event) std::array<char, 64UL * 1024> buffer{};
        for (ssize_t length = 0; (length = ::read(events.get(), buffer.data(), buffer.size())) > 0;) {
            for (std::size_t position = 0; position < static_cast<std::size_t>(length); ++count) {
                const auto* const event = reinterpret_cast<const inotify_event*>(buffer.data() + position);
                position += sizeof *event + event->len;
            }
        }
        return count;
    }

private:
    os::FileDescriptor events{::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)};
};

} // namespace agent::test
