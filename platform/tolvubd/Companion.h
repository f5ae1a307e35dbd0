#pragma once

#include <optional>
#include <sys/types.h>

/// Copies of this process, which outlive it for a while to see to a volume.
///
/// The process may have threads, whose locks nobody will ever release in a copy. So a copy makes system calls
/// only, and leaves by _exit.
namespace tolvubd::companion {

/// Like fork, but nobody except its maker gets to see the copy: its end sends no signal, and no other wait()
/// of the program finds it. No signal reaches the copy but SIGKILL. Returns 0 in the copy; -1, with errno,
/// where there is none.
pid_t start() noexcept;
/// Waits for a copy to end. None where it didn't leave by _exit.
std::optional<int> exitStatus(pid_t copy) noexcept;

/// What a copy begins its life with. It takes a name that ps(1) shows. It leaves the group of processes, as a
/// signal to that isn't meant for it, and the folder that the program is in, as somebody may want to unmount
/// it. It keeps two descriptors only, so that it holds no lock and no connection of the program open.
void settle(const char* name, int one, int other) noexcept;
/// Lets the copy die of a signal.
void letIn(int signal) noexcept;

} // namespace tolvubd::companion
