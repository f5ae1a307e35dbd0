#pragma once

#include "core/transport/IscsiLibrary.h"
#include "core/transport/Transfer.h"
#include "core/transport/Transport.h"

#include <functional>
#include <mutex>
#include <string>

namespace agent::core {

/// A remote image on a LUN of an iSCSI target, from a fixed byte offset of it on.
/// Owns:    the session with the target; one for each object, made by `connect`.
/// Threads: one at a time. A second one that comes while commands are under way gets EBUSY at once; no lock
///          is held while the network is waited for.
/// Fails:   by return value, after a line in the log. A read or write is many commands at once; with one that
///          fails, all of it has failed. It is tried again over a new session, five times at intervals of a
///          second, so a target may be restarted meanwhile. Each command gives up after a minute. Broken
///          pipes raise no signal.
///
/// Positions and lengths of reads and writes are meant to be whole blocks of the target. Writes insist on it;
/// reads deliver from the start of the block.
///
/// With `diffMerge`, a write reads the target first and is left out if it wouldn't change anything. The first
/// reconnection ends that: whatever comes later is written without comparison.
class IscsiTransport : public Transport {
public:
    /// Nothing is connected yet. An empty user means no authentication.
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
    /// Bytes of the LUN, with those before the image; 0 before it was connected.
    [[nodiscard]] std::uint64_t size() const { return blockSize * blockCount; }
    bool punchHole(std::uint64_t length) override;
    [[nodiscard]] bool supportsHolePunching() const override;

private:
    using Lock = std::unique_lock<std::mutex>;

    bool doConnect(bool withDiffMerge, bool retrying);
    bool prepareContext();
    bool login(int attempt, bool isLast);
    bool readCapacity();
    /// Ends the context. Always false.
    bool giveUp(const std::string& message);

    std::int64_t tryRead(std::uint64_t length, bool& failed, const iscsi::Transfer::Deliver& deliver);
    std::int64_t tryWrite(const void* data, std::uint64_t length, bool& failed);
    /// Does an operation, and repeats it if it has failed, each time over a new session.
    std::int64_t attempt(const char* message, const std::function<std::int64_t(bool& failed)>& operation);
    std::int64_t retry(const char* message, const std::function<std::int64_t(bool& failed)>& operation);
    bool reconnect();
    /// Whether the remote bytes at the position equal `data`; if so, the position is behind them now. They
    /// are compared as they arrive, while others are still on the way.
    bool isRemoteEqual(const void* data, std::uint64_t length);
    std::int64_t returnTo(std::int64_t start, std::uint64_t length);
    /// Where the position is on the LUN; behind all LUNs if it can't be told.
    [[nodiscard]] std::uint64_t firstByte() const;
    /// Whether a command can be sent now; `errno` tells why not.
    [[nodiscard]] bool isReady() const;
    /// False without anything sent over a session that has broken.
    bool run(Lock& lock, const std::function<bool(iscsi::Transfer& transfer)>& work);
    /// What becomes of a transfer that the target has not carried out: -1 with EIO.
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
    std::int64_t position = 0; ///< in bytes, from `offset` on
    std::uint64_t offset;
    std::uint32_t blockSize = 0; ///< bytes
    std::uint64_t blockCount = 0;
    iscsi::CommandWindow window;
    bool busy = false;   ///< commands are in flight
    bool broken = false; ///< the session can't be trusted: no orderly logout
    std::mutex mutex;    ///< guards the command path
};

} // namespace agent::core
