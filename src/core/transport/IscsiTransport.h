#pragma once

#include "core/transport/IscsiLibrary.h"
#include "core/transport/Transfer.h"
#include "core/transport/Transport.h"
#include "os/Mutex.h"

#include <functional>
#include <string>

namespace agent::core {

/// A remote image on a LUN of an iSCSI target, starting at a fixed byte offset.
/// Owns:    the session with the target, which `connect` creates; one per object.
/// Threads: one at a time. A second thread gets EBUSY at once while commands are in flight; no lock is held
///          while a read or write waits for the network.
/// Fails:   by return value, after a log line. A read or write consists of many concurrent commands; if one
///          fails, the whole operation fails. It is then retried over a new session, five times with a second
///          in between, so a target may be restarted meanwhile. Each command times out after a minute. Broken
///          pipes raise no signal.
///
/// Positions and lengths should be multiples of the target's block size. Writes require it; an unaligned read
/// starts at the start of the block.
///
/// With `diffMerge`, a write first reads the target's blocks, and skips the write if they are equal. After
/// the first reconnection, writes no longer compare.
class IscsiTransport : public Transport {
public:
    /// Doesn't connect yet. An empty user means no authentication.
    IscsiTransport(info::Logger& logger, std::string targetName, std::string portal, int lun,
                   std::uint64_t offset, std::string user, std::string password);
    IscsiTransport(const IscsiTransport&) = delete;
    IscsiTransport& operator=(const IscsiTransport&) = delete;
    IscsiTransport(IscsiTransport&&) = delete;
    IscsiTransport& operator=(IscsiTransport&&) = delete;
    ~IscsiTransport() override;

    std::int64_t seek(std::int64_t distance, int whence) override;
    std::int64_t write(const void* data, std::uint64_t length) override;
    bool connect(bool diffMerge) override;
    std::int64_t read(void* data, std::uint64_t length) override;
    void disconnect() override;
    /// The size of the LUN in bytes, including the bytes before the image; 0 before the first `connect`.
    [[nodiscard]] std::uint64_t size() const { return blockSize * blockCount; }
    bool punchHole(std::uint64_t length) override;
    [[nodiscard]] bool supportsHolePunching() const override;

private:
    bool doConnect(bool withDiffMerge, bool retrying);
    bool prepareContext();
    bool login(int attempt, bool isLast);
    bool readCapacity();
    /// Logs `message` and destroys the context. Always returns false.
    bool failConnect(const std::string& message);

    std::int64_t tryRead(std::uint64_t length, bool& failed, const iscsi::Transfer::Deliver& deliver);
    std::int64_t tryWrite(const void* data, std::uint64_t length, bool& failed);
    /// Runs an operation. If it fails, retries it, each time over a new session.
    std::int64_t attempt(const char* message, const std::function<std::int64_t(bool& failed)>& operation);
    std::int64_t retry(const char* message, const std::function<std::int64_t(bool& failed)>& operation);
    bool reconnect();
    /// Whether the remote bytes at the position equal `data`. Moves the position past them if they could all
    /// be read. Compares the bytes as they arrive, while others are still on the way.
    bool isRemoteEqual(const void* data, std::uint64_t length);
    std::int64_t seekBack(std::int64_t start, std::uint64_t length);
    /// The position on the LUN, in bytes; past the end of every LUN on overflow.
    [[nodiscard]] std::uint64_t firstByte() const;
    /// Whether a command can be sent now; if not, `errno` says why.
    [[nodiscard]] bool isReady() const REQUIRES(mutex);
    /// Runs `work` with the mutex released. Returns false and sends nothing if the session is broken.
    bool run(const std::function<bool(iscsi::Transfer& transfer)>& work) REQUIRES(mutex);
    /// Logs a failed transfer and marks the session as broken. Returns -1 with EIO.
    std::int64_t failCommand(const char* message, bool& failed);
    void flush();
    bool diffMerge = false;
    std::string targetName;
    std::string portal;
    std::int32_t lun;
    std::string user;
    std::string password;
    iscsi::Context context;
    std::int32_t fd = -1;
    std::int64_t position = 0; ///< in bytes, relative to `offset`
    std::uint64_t offset;
    std::uint32_t blockSize = 0; ///< in bytes
    std::uint64_t blockCount = 0;
    iscsi::CommandWindow window;
    bool broken = false; ///< the session can't be used any more, not even for a logout
    os::Mutex mutex;     ///< held while an operation is prepared and finished, not during its transfer
    bool busy GUARDED_BY(mutex) = false; ///< commands are in flight
};

} // namespace agent::core
