#pragma once

#include "os/FileDescriptor.h"

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace restore::view {

/// A process, distinguished from a later one with the same number.
struct ProcessId {
    pid_t pid = 0;
    unsigned long long begin = 0; ///< start time, in the kernel's ticks since boot

    /// Returns nothing if there is no such process.
    static std::optional<ProcessId> of(pid_t pid);
    static ProcessId self();
    [[nodiscard]] bool isAlive() const { return of(pid) == *this; }
    bool operator==(const ProcessId&) const = default;
};

/// The record of a view, for later runs of bek-restore.
struct ViewState {
    ProcessId owner;        ///< the bek-restore that made it
    ProcessId server;       ///< nbdfuse
    std::string loop;       ///< the block device; empty before there is one
    std::string image;      ///< its address
    std::string mountPoint; ///< empty unless it is mounted for all processes
};

/// The directory of one view of an image, below /run/bek-restore:
///     view/    where nbdfuse shows the image, in its own mount namespace only
///     root/    where the file system is mounted, in a mount namespace only
///     state    a ViewState, as JSON; there from the beginning, and replaced as a whole
///     log      what the server has printed
///     ready    the server's process ID, once it serves
/// Each process that serves the view holds a lock on the directory, so a view without a lock is dead.
/// Owns:    the descriptor with the lock, and the directory unless keep() was called.
/// Threads: one at a time.
/// Fails:   throws std::runtime_error.
class ViewDirectory {
public:
    ViewDirectory();
    ViewDirectory(const ViewDirectory&) = delete;
    ViewDirectory& operator=(const ViewDirectory&) = delete;
    ViewDirectory(ViewDirectory&&) = delete;
    ViewDirectory& operator=(ViewDirectory&&) = delete;
    ~ViewDirectory();

    /// The path of the directory, or of something in it.
    [[nodiscard]] std::string path(const std::string& name = "") const;
    /// The descriptor with the lock, which a serving process has to inherit.
    [[nodiscard]] int lock() const { return held.get(); }
    void write(const ViewState& state) const;
    void keep() { isKept = true; }

private:
    std::string place;
    os::FileDescriptor held;
    bool isKept = false;
};

/// A view that bek-restore has mounted for all processes.
struct MountedView {
    std::string place;
    ViewState state;
};
std::vector<MountedView> mountedViews();

/// Ends the server of a view, within a time limit, and removes the view's directory.
void endView(const std::string& place, const ViewState& state);

/// Removes what killed processes have left behind, and ends servers whose file system was unmounted by other
/// means.
void removeStaleViews();

} // namespace restore::view
