#include "core/transport/IscsiTransport.h"

#include "common/BrokenPipeGuard.h"
#include "core/transport/Libiscsi.h"
#include "core/transport/Retry.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <span>
#include <string_view>
#include <utility>

namespace agent::core {

namespace {

constexpr int tcpUserTimeoutMilliseconds = 60000;
constexpr int commandTimeoutSeconds = 60;
constexpr int absolute = 0;
constexpr int relative = 1;
/// No disk has larger blocks, and their number must fit in a command's 32-bit length.
constexpr std::uint32_t maxBlockSize = 1U << 20U;
/// The library counts a command's bytes in an `int`. A larger count would overflow, and only the remainder
/// would be transferred.
constexpr std::uint64_t maxLength = std::numeric_limits<int>::max();

constexpr const char* readAgain = "Read iscsi failed. Sleeping, reconnecting, and retrying.";

bool fitsCommand(std::uint64_t length) {
    if (length > maxLength) {
        errno = EINVAL;
        return false;
    }
    return true;
}

/// Guesses the reason from the library's text, because it reports nothing else. "Can not reconnect right now"
/// means that the connection was refused, or broke, before the login.
const info::Reason& whyNoLogin(std::string_view error) {
    const auto has = [error](std::string_view part) { return error.find(part) != std::string_view::npos; };
    if (has("Connection refused") || has("Can not reconnect right now")) {
        return info::reason("target-refused");
    }
    if (has("LOGICAL_UNIT_NOT_SUPPORTED")) {
        return info::reason("target-image");
    }
    return has("Failed to log in") ? info::reason("target-login") : info::reason("target-unreachable");
}

} // namespace

IscsiTransport::IscsiTransport(info::Logger& logger, std::string targetName, std::string portal, int lun,
                               std::uint64_t offset, std::string user, std::string password)
    : Transport(logger),
      targetName(std::move(targetName)),
      portal(std::move(portal)),
      lun(lun),
      user(std::move(user)),
      password(std::move(password)),
      offset(offset) {}

IscsiTransport::~IscsiTransport() {
    IscsiTransport::disconnect();
}

bool IscsiTransport::connect(bool diffMerge) {
    return doConnect(diffMerge, true);
}

bool IscsiTransport::doConnect(bool withDiffMerge, bool retrying) {
    const BrokenPipeGuard guard;
    diffMerge = withDiffMerge;
    broken = false;
    const int tries = retrying ? maxTries : 1;
    for (int attempt = 1; attempt <= tries; ++attempt) {
        if (!prepareContext()) {
            return false;
        }
        if (login(attempt, retrying && attempt == tries)) {
            return readCapacity();
        }
        context.reset();
        if (retrying) {
            sleepBeforeRetry();
        }
    }
    return failConnect(retrying ? "Iscsi target connect exceeded max retries. Aborting."
                                : "Iscsi target connect failed. Aborting.");
}

/// Creates the context and sets its options. The library must not reconnect on its own, because `doConnect`
/// and `retry` decide how often a connection is tried.
bool IscsiTransport::prepareContext() {
    context.reset(iscsi_create_context(targetName.c_str()));
    if (!context) {
        return failConnect("Failed to create iscsi context.");
    }
    iscsi_set_tcp_user_timeout(context.get(), tcpUserTimeoutMilliseconds);
    iscsi_set_noautoreconnect(context.get(), 1);
    iscsi_set_reconnect_max_retries(context.get(), 0);
    if (iscsi_set_targetname(context.get(), targetName.c_str()) != 0) {
        return failConnect("Failed to set iscsi target name.");
    }
    if (iscsi_set_session_type(context.get(), ISCSI_SESSION_NORMAL) != 0) {
        return failConnect("Failed to set iscsi session type.");
    }
    if (iscsi_set_header_digest(context.get(), ISCSI_HEADER_DIGEST_NONE_CRC32C) != 0) {
        return failConnect("Failed to set iscsi header digest.");
    }
    if (iscsi_set_initiator_username_pwd(context.get(), user.c_str(), password.c_str()) != 0) {
        return failConnect("Failed to set iscsi initiator username and password.");
    }
    if (iscsi_set_immediate_data(context.get(), ISCSI_IMMEDIATE_DATA_YES) != 0) {
        return failConnect("Failed to set iscsi 'IMMEDIATE DATA' option. " + iscsi::errorOf(context));
    }
    if (iscsi_set_initial_r2t(context.get(), ISCSI_INITIAL_R2T_NO) != 0) {
        return failConnect("Failed to set iscsi 'INITIAL R2T' option. " + iscsi::errorOf(context));
    }
    if (iscsi_set_timeout(context.get(), commandTimeoutSeconds) != 0) {
        return failConnect("Failed to set iscsi timeout.");
    }
    return true;
}

bool IscsiTransport::login(int attempt, bool isLast) {
    if (iscsi_full_connect_sync(context.get(), portal.c_str(), lun) == 0) {
        fd = iscsi_get_fd(context.get());
        return true;
    }
    const std::string error = iscsi::errorOf(context);
    info::LogEntry(logger, info::level::error, isLast ? &whyNoLogin(error) : nullptr)
        .format("Iscsi target connect or Login failed: Try: %d Target name: %s Target portal: %s LUN: %d. "
                "Error: %s",
                attempt, targetName.c_str(), portal.c_str(), lun, error.c_str());
    return false;
}

bool IscsiTransport::readCapacity() {
    const iscsi::Task task(iscsi_readcapacity16_sync(context.get(), lun));
    if (!iscsi::isGood(task)) {
        return failConnect("Failed during iscsi read capacity command.");
    }
    // The task owns this structure.
    const auto* const capacity = static_cast<const scsi_readcapacity16*>(scsi_datain_unmarshall(task.get()));
    if (capacity == nullptr) {
        return failConnect("Failed to unmarshall read capacity data.");
    }
    if (capacity->block_length == 0 || capacity->block_length > maxBlockSize) {
        return failConnect("Iscsi target has blocks of " + std::to_string(capacity->block_length) +
                           " bytes.");
    }
    blockSize = capacity->block_length;
    blockCount = capacity->returned_lba + 1;
    position = 0;
    info::LogEntry(logger, info::level::debug) << "Iscsi connected:";
    logger.log(info::level::debug, "FD = %d", fd);
    logger.log(info::level::debug, "tBlock size: %u", blockSize);
    logger.log(info::level::debug, "tBlock count: %lu", blockCount);
    info::LogEntry(logger, info::level::debug) << "Iscsi successfully connected.";
    return true;
}

bool IscsiTransport::failConnect(const std::string& message) {
    info::LogEntry(logger, info::level::error) << message;
    context.reset();
    return false;
}

std::int64_t IscsiTransport::seek(std::int64_t distance, int whence) {
    errno = 0;
    std::int64_t target = 0;
    const std::int64_t from = whence == relative ? position : 0;
    if ((whence != absolute && whence != relative) || __builtin_add_overflow(from, distance, &target) ||
        target < 0 || (size() != 0 && static_cast<std::uint64_t>(target) > size())) {
        errno = EINVAL;
        return -1;
    }
    position = target;
    return position;
}

std::int64_t IscsiTransport::read(void* data, std::uint64_t length) {
    if (!fitsCommand(length)) {
        return -1;
    }
    auto* const bytes = static_cast<unsigned char*>(data);
    return attempt(readAgain, [&](bool& failed) {
        return tryRead(length, failed, [&](std::uint64_t at, std::span<const unsigned char> piece) {
            std::ranges::copy(piece, bytes + at);
        });
    });
}

std::int64_t IscsiTransport::write(const void* data, std::uint64_t length) {
    if (!fitsCommand(length)) {
        return -1;
    }
    if (diffMerge) {
        const std::int64_t start = position;
        if (isRemoteEqual(data, length)) {
            logger.log(info::level::debug,
                       "Iscsi diffmerge: local block %ld (len %lu) matches remote; skipping write", start,
                       length);
            return static_cast<std::int64_t>(length);
        }
        if (seekBack(start, length) < 0) {
            return -1;
        }
    }
    return attempt("Write iscsi failed. Sleeping, reconnecting, and retrying.",
                   [&](bool& failed) { return tryWrite(data, length, failed); });
}

bool IscsiTransport::isRemoteEqual(const void* data, std::uint64_t length) {
    const auto* const bytes = static_cast<const unsigned char*>(data);
    bool isEqual = true;
    const std::int64_t compared = attempt(readAgain, [&](bool& failed) {
        isEqual = true;
        return tryRead(length, failed, [&](std::uint64_t at, std::span<const unsigned char> piece) {
            isEqual = isEqual && std::memcmp(piece.data(), bytes + at, piece.size()) == 0;
        });
    });
    if (compared != static_cast<std::int64_t>(length)) {
        info::LogEntry(logger, info::level::warning, info::reason("block-not-compared"))
            << "Failed to read a remote target block; the current block will be "
               "copied without diff";
        return false;
    }
    return isEqual;
}

// If the comparison couldn't read the whole block, it hasn't moved the position past it. The content of the
// target isn't known then, so the write fails, although the log says that the block will be copied.
std::int64_t IscsiTransport::seekBack(std::int64_t start, std::uint64_t length) {
    if (position - static_cast<std::int64_t>(length) != start) {
        info::LogEntry(logger, info::level::error) << "Invalid seek position in remote target";
        return -1;
    }
    const std::int64_t result = seek(start, absolute);
    if (result < 0) {
        info::LogEntry(logger, info::level::error)
            << "Failed to seek to offset " << start << " in remote target with size " << size();
    }
    return result;
}

std::int64_t IscsiTransport::tryRead(std::uint64_t length, bool& failed,
                                     const iscsi::Transfer::Deliver& deliver) {
    const os::Lock lock(mutex);
    if (!isReady()) {
        return -1;
    }
    const std::uint64_t first = firstByte();
    const std::uint64_t lba = first / blockSize;
    std::uint64_t count = (blockSize + first % blockSize + length - 1) / blockSize;
    if (lba >= blockCount) {
        return 0;
    }
    if (count > blockCount - lba) {
        count = blockCount - lba;
        // At an unaligned position the remaining blocks may be longer than the request.
        length = std::min(length, blockSize * count);
    }
    const bool isDone = run(
        [&](iscsi::Transfer& transfer) { return transfer.read(lba, count * blockSize, length, deliver); });
    if (!isDone) {
        return failCommand("Failed during iscsi read command.", failed);
    }
    position += static_cast<std::int64_t>(length);
    return static_cast<std::int64_t>(length);
}

/// Writes once, without a retry. Sets `failed` only if a retry over a new session could help, which it can't
/// for an unaligned write or at the image's end.
std::int64_t IscsiTransport::tryWrite(const void* data, std::uint64_t length, bool& failed) {
    const os::Lock lock(mutex);
    if (!isReady()) {
        return -1;
    }
    if (position % blockSize != 0 || length % blockSize != 0) {
        errno = EINVAL;
        return -1;
    }
    const std::uint64_t lba = firstByte() / blockSize;
    if (lba >= blockCount) {
        errno = ENOSPC;
        return -1;
    }
    length = std::min(length / blockSize, blockCount - lba) * blockSize;
    const bool isDone = run([&](iscsi::Transfer& transfer) {
        return transfer.write(lba, static_cast<const unsigned char*>(data), length);
    });
    if (!isDone) {
        return failCommand("Failed during iscsi write command.", failed);
    }
    position += static_cast<std::int64_t>(length);
    return static_cast<std::int64_t>(length);
}

std::uint64_t IscsiTransport::firstByte() const {
    std::uint64_t sum = 0;
    const bool isTooFar = __builtin_add_overflow(offset, static_cast<std::uint64_t>(position), &sum);
    return isTooFar ? std::numeric_limits<std::uint64_t>::max() : sum;
}

bool IscsiTransport::isReady() const {
    if (busy) {
        errno = EBUSY;
        return false;
    }
    if (!context) {
        errno = ENOTCONN;
        return false;
    }
    return true;
}

bool IscsiTransport::run(const std::function<bool(iscsi::Transfer& transfer)>& work) {
    if (broken) {
        return false;
    }
    const BrokenPipeGuard guard;
    busy = true;
    bool isDone = false;
    {
        const os::Unlock unlocked(mutex);
        iscsi::Transfer transfer({context.get(), lun, blockSize}, window);
        isDone = work(transfer);
    }
    busy = false;
    return isDone;
}

std::int64_t IscsiTransport::failCommand(const char* message, bool& failed) {
    info::LogEntry(logger, info::level::error) << message;
    errno = EIO;
    broken = true;
    failed = true;
    return -1;
}

std::int64_t IscsiTransport::attempt(const char* message,
                                     const std::function<std::int64_t(bool& failed)>& operation) {
    bool failed = false;
    const std::int64_t result = operation(failed);
    return failed ? retry(message, operation) : result;
}

std::int64_t IscsiTransport::retry(const char* message,
                                   const std::function<std::int64_t(bool& failed)>& operation) {
    for (int round = 0; round < maxTries; ++round) {
        info::LogEntry(logger, info::level::error, info::reason("target-retried")) << message;
        sleepBeforeRetry();
        if (!reconnect()) {
            continue;
        }
        bool failed = false;
        const std::int64_t result = operation(failed);
        if (!failed) {
            return result;
        }
    }
    broken = true;
    errno = EIO;
    return -1;
}

bool IscsiTransport::reconnect() {
    broken = true; // makes `disconnect` skip the flush and the logout
    disconnect();
    const std::int64_t interrupted = position;
    const bool connected = doConnect(false, false);
    position = interrupted;
    return connected;
}

bool IscsiTransport::punchHole(std::uint64_t length) {
    const std::int64_t result = seek(static_cast<std::int64_t>(length), relative);
    return result != 0;
}

bool IscsiTransport::supportsHolePunching() const {
    return false;
}

void IscsiTransport::disconnect() {
    if (!context) {
        return;
    }
    const BrokenPipeGuard guard;
    const bool wasBroken = broken;
    if (!broken) {
        flush();
    }
    if (!broken && iscsi_is_logged_in(context.get()) != 0 && iscsi_logout_sync(context.get()) < 0) {
        info::LogEntry(logger, info::level::warning) << "Iscsi logout failed.";
    }
    if (!wasBroken && iscsi_disconnect(context.get()) < 0) {
        info::LogEntry(logger, info::level::warning) << "Iscsi disconnect failed.";
    }
    context.reset();
}

// A successful read shows that the target has processed the earlier commands.
void IscsiTransport::flush() {
    const os::Lock lock(mutex);
    const iscsi::Task task(
        iscsi_read16_sync(context.get(), lun, 0, blockSize, static_cast<int>(blockSize), 0, 0, 0, 0, 0));
    broken = !iscsi::isGood(task);
}

} // namespace agent::core
