#pragma once

#include "ImageView.h"

#include <optional>
#include <stdexcept>
#include <string>

namespace restore::view {

/// What kind of file system is on a device, as libblkid names it. Throws std::runtime_error if it knows none.
std::string findKind(const std::string& device);
/// Its UUID, in the same way; empty if it has none.
std::string uuidOf(const std::string& device);

/// Nothing on this machine mounts such a file system; the text says what to install.
class NoDriver : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Mounts the file system of a view for everybody, for reading only. Its journal is replayed on the way, in
/// the overlay. Throws std::runtime_error, which says what is missing if this machine has no driver for that
/// kind.
void mountForAll(const ImageView& view, const std::string& kind, const std::string& directory);

/// Lets the kernel mount a device for writing, and unmounts it again: then its journal is replayed. Nobody
/// else is to see `directory`. Throws std::runtime_error; NoDriver if the kernel doesn't know the kind.
void replayJournal(const std::string& kind, const std::string& device, const std::string& directory);

/// This process, and those that it starts from now on, have mounts of their own, which the kernel takes away
/// with the last of them.
void leaveMountsOfMachine();

/// A file system that this process alone sees.
/// Owns:    the mount, and the process that it takes with some kinds.
/// Threads: one at a time.
/// Fails:   by std::runtime_error.
class PrivateMount {
public:
    /// What a view shows. leaveMountsOfMachine() has been called.
    PrivateMount(const ImageView& view, const std::string& kind);
    PrivateMount(const PrivateMount&) = delete;
    PrivateMount& operator=(const PrivateMount&) = delete;
    PrivateMount(PrivateMount&&) = delete;
    PrivateMount& operator=(PrivateMount&&) = delete;
    ~PrivateMount();

    /// A descriptor of the directory at its top.
    [[nodiscard]] int root() const { return top.get(); }

private:
    void openTop(const std::string& path);

    std::string mounted; // by the kernel, here; empty if a program does it elsewhere
    std::optional<Program> driver;
    os::FileDescriptor top;
};

} // namespace restore::view
