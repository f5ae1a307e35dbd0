#pragma once

#include <optional>
#include <sys/types.h>

/// Child processes: forked copies of this one, which outlive it for a while to take care of a volume.
///
/// Another thread may hold a lock when the process is forked, and no thread of the child ever releases it. So
/// a child may only make system calls, and ends with _exit.
namespace tolvubd::companion {

/// Like fork, but hides the child from the rest of the program: its end sends no SIGCHLD, and a plain wait()
/// doesn't find it. All signals but SIGKILL are blocked in the child. Returns 0 in the child; -1, with errno,
/// on failure.
pid_t forkHidden() noexcept;
/// Waits for a child to end. None if it didn't end with _exit.
std::optional<int> exitStatus(pid_t child) noexcept;

/// Prepares a child for its work. Gives it `name`, which ps(1) shows. Starts a new session, so that signals
/// to the program's process group don't reach the child, and changes to "/", so that the program's working
/// directory can be unmounted. Keeps only the descriptors `one` and `other` open, so that the child holds
/// none of the program's locks and connections.
void prepareChild(const char* name, int one, int other) noexcept;
/// Restores the default action of a signal and unblocks it, so that it can end the child.
void unblockSignal(int signal) noexcept;

} // namespace tolvubd::companion
