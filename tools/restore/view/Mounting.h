#pragma once

#include "ImageView.h"

#include <optional>
#include <string>

namespace restore::view {

/// What kind of file system is on a device, as libblkid names it. Throws std::runtime_error if it knows none.
std::string findKind(const std::string& device);

/// Mounts the file system of a view for everybody, for reading only. Its journal is replayed on the way, in
/// the overlay. Throws std::runtime_error, which says what is missing if this machine has no driver for that
/// kind.
void mountForAll(const ImageView& view, const std::string& kind, const std::string& directory);

/// Mounts a device for everything that reads or writes and unmounts it again, so that its journal is replayed
/// and its marks of a volume in use are gone. Nothing where only programs know the kind: they replay none. To
/// be called by one who sees no more of the machine's mounts than `PrivateMount` leaves.
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
    /// A block device or a file with a file system, for reading, and without a replay of its journal: it
    /// isn't written at all.
    PrivateMount(const std::string& device, const std::string& kind, const std::string& directory);
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
