#pragma once

#include "FileAccess.h"
#include "Hold.h"
#include "Process.h"
#include "Volume.h"

#include <chrono>
#include <string>
#include <vector>

namespace tolvubd {

/// Holds a volume of a FUSE file system, by stopping the server process while it is idle.
///
/// A server that is stopped in the middle of a request leaves half of a change on the volume. It is idle when
/// all its threads wait for the kernel's next request; if there are several, the first may wait for the
/// others instead. A server with any other thread never counts as idle, so its volume can't be held. While
/// the server is stopped, all requests to the mount block: statvfs(), sync(), closing a file.
///
/// Owns:    descriptors of the server's /proc directory and of the device. Not the stop, which only `end`
///          undoes.
/// Threads: one at a time; `end` also in a forked child process.
/// Fails:   std::system_error; the server is then as it was before.
class StoppedServer : public Hold {
public:
    /// Writes all dirty data of the mount to the device, which may take long. Throws EOPNOTSUPP unless the
    /// volume has exactly one server process.
    StoppedServer(const Volume& volume, const std::string& mountPoint);

    /// Throws EBUSY when another program has stopped the server, ETIMEDOUT when the server was never idle.
    void begin() override;
    bool end() noexcept override;
    [[nodiscard]] int descriptor() const noexcept override { return server.descriptor(); }

    /// Shorter than the guard's, so that begin() gives up first.
    static constexpr int patienceMilliseconds = 5'000;

private:
    void stopWhenIdle();
    bool stop(std::chrono::steady_clock::time_point end);
    [[nodiscard]] bool isStopped() const;
    [[nodiscard]] bool isIdle() const;
    [[nodiscard]] bool waitsForRequest(const SystemCall& call) const;

    Process server;
    os::FileDescriptor device;
    std::vector<std::uint64_t> channels; ///< the server's descriptors of /dev/fuse, where it reads requests
};

/// The FUSE servers of a device: the processes that have both the device and /dev/fuse open. Throws EACCES or
/// EPERM when a process can't be examined.
std::vector<ProcessName> findServers(dev_t device);

/// Throws EBUSY when one of the servers is stopped, EDEADLK when one is this process or an ancestor of it: a
/// request to the mount would then block.
void requireAnswering(const std::vector<ProcessName>& servers);

/// Continues a server that a dead process may have left stopped; does nothing if it isn't stopped or is gone.
void continueIfStopped(const ProcessName& server) noexcept;

} // namespace tolvubd
