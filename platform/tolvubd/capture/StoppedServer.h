#pragma once

#include "FileAccess.h"
#include "Hold.h"
#include "Process.h"
#include "Volume.h"

#include <chrono>
#include <string>
#include <vector>

namespace tolvubd {

/// Holds a volume whose file system is a process, by stopping that process while it has nothing to do.
///
/// A server that is stopped within a request leaves half of a change on the volume. It has nothing to do when
/// all its threads wait for the kernel's next request; the first thread of one with several may also wait for
/// the others. Any other thread makes it one that is never known to be idle, so it isn't held.
/// While it is stopped, whatever touches the mount waits: asking for free space, sync(), closing a file.
class StoppedServer : public Hold {
public:
    /// Has all that was written on the mount brought to the device, which takes as long as there is of it.
    /// EOPNOTSUPP when the volume has no such process or several.
    StoppedServer(const Volume& volume, const std::string& mountPoint);

    /// EBUSY when somebody else has stopped it, ETIMEDOUT when it was busy whenever it was looked at.
    void begin() override;
    bool end() noexcept override;
    [[nodiscard]] int descriptor() const noexcept override { return server.descriptor(); }

    /// Less than the guard's.
    static constexpr int patienceMilliseconds = 5'000;

private:
    void stopWhenIdle();
    bool stop(std::chrono::steady_clock::time_point end);
    [[nodiscard]] bool isStopped() const;
    [[nodiscard]] bool isIdle() const;
    [[nodiscard]] bool waitsForRequest(const SystemCall& call) const;

    Process server;
    os::FileDescriptor device;
    std::vector<std::uint64_t> channels; ///< its descriptors on which the kernel asks it
};

/// The processes that are the file system of a device: they have it open, and a channel on which the kernel
/// asks them. EACCES or EPERM when there is a process that can't be looked at.
std::vector<ProcessName> findServers(dev_t device);

/// EBUSY when one of them is stopped, EDEADLK when it is this process or one that has started it: whoever
/// touches the mount now would wait for as long as that lasts.
void requireAnswering(const std::vector<ProcessName>& servers);

/// Lets a process go on that may have been left stopped, and need not be, nor be there at all.
void continueIfStopped(const ProcessName& server) noexcept;

} // namespace tolvubd
