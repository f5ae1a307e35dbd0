#pragma once

#include <optional>
#include <sys/types.h>

/// Forked copies of this process, which outlive it for a while to take care of a volume.
///
/// Another thread may hold a lock when the process is forked, and no thread of the copy ever releases it. So
/// a copy may only make system calls, and ends with _exit.
namespace tolvubd::companion {

/// Like fork, but hides the copy from the rest of the program: its end sends no SIGCHLD, and a plain wait()
/// doesn't find it. All signals but SIGKILL are blocked in the copy. Returns 0 in the copy; -1, with errno,
/// on failure.
pid_t start() noexcept;
/// Waits for a copy to end. None if it didn't end with _exit.
std::optional<int> exitStatus(pid_t copy) noexcept;

/// Prepares a copy for its work. Gives it `name`, which ps(1) shows. Starts a new session, so that signals to
/// the program's process group don't reach the copy, and changes to "/", so that the program's working
/// directory can be unmounted. Keeps only the descriptors `one` and `other` open, so that the copy holds none
/// of the program's locks and connections.
void settle(const char* name, int one, int other) noexcept;
/// Restores the default action of a signal and unblocks it, so that it can end the copy.
void letIn(int signal) noexcept;

} // namespace tolvubd::companion
