#pragma once

#include "ImageView.h"

#include <optional>
#include <stdexcept>
#include <string>

namespace restore::view {

/// The kind of file system on a device, as libblkid names it. Throws std::runtime_error if libblkid knows
/// none.
std::string findKind(const std::string& device);
/// The file system's UUID, according to libblkid; empty if it has none.
std::string uuidOf(const std::string& device);

/// Thrown if nothing on this machine can mount a kind of file system; the text says what to install.
class NoDriver : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Mounts the file system of a view read-only, visible to all processes. Its journal is replayed in the
/// overlay. Throws std::runtime_error, which says what is missing if this machine has no driver for the kind.
void mountForAll(const ImageView& view, const std::string& kind, const std::string& directory);

/// Replays a journal: the kernel mounts the device for writing and unmounts it again. No other process should
/// see `directory`. Throws std::runtime_error; NoDriver if the kernel doesn't support the kind.
void replayJournal(const std::string& kind, const std::string& device, const std::string& directory);

/// Moves this process, and those that it starts from now on, to a mount namespace of their own. The kernel
/// removes its mounts with the last of these processes.
void enterPrivateMountNamespace();

/// A file system that is mounted for this process only.
/// Owns:    the mount, and the driver's process that some kinds need.
/// Threads: one at a time.
/// Fails:   throws std::runtime_error.
class PrivateMount {
public:
    /// Mounts what a view shows. Call enterPrivateMountNamespace() first.
    PrivateMount(const ImageView& view, const std::string& kind);
    PrivateMount(const PrivateMount&) = delete;
    PrivateMount& operator=(const PrivateMount&) = delete;
    PrivateMount(PrivateMount&&) = delete;
    PrivateMount& operator=(PrivateMount&&) = delete;
    ~PrivateMount();

    /// A descriptor of the file system's root directory.
    [[nodiscard]] int root() const { return top.get(); }

private:
    void openTop(const std::string& path);

    std::string kernelMountPoint; // in our mount namespace; empty if a program mounts it elsewhere
    std::optional<Program> driver;
    os::FileDescriptor top;
};

} // namespace restore::view
