#pragma once

#include "os/FileDescriptor.h"

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace restore::view {

/// A process that is told from a later one of the same number.
struct ProcessId {
    pid_t pid = 0;
    unsigned long long begin = 0; ///< when it was started, in the kernel's ticks since the boot

    /// Nothing if there is none.
    static std::optional<ProcessId> of(pid_t pid);
    static ProcessId self();
    [[nodiscard]] bool isAlive() const { return of(pid) == *this; }
    bool operator==(const ProcessId&) const = default;
};

/// What is known of a view by those who come later.
struct ViewState {
    ProcessId owner;        ///< the bek-restore that has made it
    ProcessId server;       ///< nbdfuse
    std::string loop;       ///< the block device; empty before there is one
    std::string image;      ///< its address
    std::string mountPoint; ///< empty unless it is mounted for everybody
};

/// A place of its own for each view of an image, below /run/bek-restore:
///     view/    where nbdfuse shows the image, in its own mount namespace only
///     root/    where the file system is mounted, in a mount namespace only
///     state    a ViewState, as JSON; there from the beginning, and replaced as a whole
///     log      what the server has printed
///     ready    the server's process number, once it serves
/// Each process that serves the view holds a lock on it, so a view without a lock is a dead one's.
/// Owns:    the descriptor with the lock, and the place unless it is `kept`.
/// Threads: one at a time.
/// Fails:   by std::runtime_error.
class ViewDirectory {
public:
    ViewDirectory();
    ViewDirectory(const ViewDirectory&) = delete;
    ViewDirectory& operator=(const ViewDirectory&) = delete;
    ViewDirectory(ViewDirectory&&) = delete;
    ViewDirectory& operator=(ViewDirectory&&) = delete;
    ~ViewDirectory();

    /// The path of the place, or of what is in it.
    [[nodiscard]] std::string path(const std::string& name = "") const;
    /// What a serving process has to hold on to.
    [[nodiscard]] int lock() const { return held.get(); }
    void write(const ViewState& state) const;
    void keep() { isKept = true; }

private:
    std::string place;
    os::FileDescriptor held;
    bool isKept = false;
};

/// The views that bek-restore has mounted for everybody.
struct MountedView {
    std::string place;
    ViewState state;
};
std::vector<MountedView> mountedViews();

/// Ends the server of a view, within limits, and removes its place.
void endView(const std::string& place, const ViewState& state);

/// Removes what killed processes have left, and ends servers whose file system was unmounted by other means.
void clearRemains();

} // namespace restore::view
