#include "core/transport/ZephaneFTPTransport.h"

#include "common/PeerText.h"
#include "core/transport/Retry.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <utility>
#include <zephane/ftp/ZephaneFTPClient.h>
#include <zephane/ftp/ZephaneFTPException.h>
#include <zephane/socket/BasicSocket.h>
#include <zephane/socket/Compressor.h>
#include <zephane/socket/Decompressor.h>
#include <zephane/socket/TLSTransport.h>

namespace agent::core {

namespace {

constexpr std::uint64_t maxPieceBytes = std::uint64_t{4} << 20U;
constexpr int fromTheStart = 0;
constexpr int fromThePosition = 1;
constexpr unsigned long compareFlag = 1;
constexpr unsigned long compressFlag = 2;
constexpr unsigned long writeFlag = 8;

std::unique_ptr<zephane::SocketImpl> makeSocket() {
    try {
        auto socket = std::make_unique<zephane::BasicSocket>(std::make_unique<zephane::TLSTransport>("", ""));
        socket->filters().reading.push_back(std::make_shared<zephane::Decompressor>());
        socket->filters().writing.push_back(std::make_shared<zephane::Compressor>());
        return socket;
    } catch (const std::exception&) {
        throw zephane::ZephaneFTPException("Invalid socket configuration");
    }
}

/// The errno value of ITransport's contract for a code of the client.
int errnoOf(int code) {
    return code == -EINVAL || code == -ENOSPC || code == -ENOTCONN ? -code : EIO;
}

/// The reason for a failed open, from the error code of the server or of the network.
const info::Reason& whyNotOpened(int code) {
    switch (code) {
    case -EACCES:
        return info::reason("target-login");
    case -EBUSY:
    case -EIO:
        return info::reason("target-image");
    case -ECONNREFUSED:
        return info::reason("target-refused");
    default:
        return info::reason("target-unreachable");
    }
}

const info::Reason& whyNotTransferred(int code) {
    return code == -ENOSPC ? info::reason("image-too-small") : info::reason("target-lost");
}

} // namespace

ZephaneFTPTransport::ZephaneFTPTransport(info::Logger& logger, std::string host, std::string path,
                                         std::uint64_t volumeId, std::uint64_t offset, std::uint16_t port,
                                         std::string secret)
    : Transport(logger),
      host(std::move(host)),
      path(std::move(path)),
      secret(std::move(secret)),
      volumeId(volumeId),
      offset(offset),
      port(port) {}

ZephaneFTPTransport::~ZephaneFTPTransport() {
    ZephaneFTPTransport::disconnect();
}

bool ZephaneFTPTransport::connect(bool diffMerge) {
    for (int attempt = 1; attempt <= maxTries; ++attempt) {
        zephane::ZephaneFTPClient candidate = makeClient(diffMerge);
        const zephane::Status status = candidate.open();
        if (status.code == 0) {
            client = std::make_unique<zephane::ZephaneFTPClient>(std::move(candidate));
            return seek(0, fromTheStart) == 0;
        }
        report("Try: " + std::to_string(attempt) + " Couldn't connect to zephane://" + host + ":" +
                   std::to_string(port) + "/" + path + "/" + std::to_string(volumeId),
               status, attempt == maxTries ? &whyNotOpened(status.code) : nullptr);
        sleepBeforeRetry();
    }
    info::LogEntry(logger, info::level::error, info::reason("target-unreachable"))
        << "ZephaneFTP target connect exceeded max retries. Aborting.";
    return false;
}

zephane::ZephaneFTPClient ZephaneFTPTransport::makeClient(bool diffMerge) const {
    const unsigned long flags = writeFlag | compressFlag | (diffMerge ? compareFlag : 0);
    return {makeSocket(), host, static_cast<std::uint16_t>(port), path, volumeId, flags, secret};
}

std::int64_t ZephaneFTPTransport::seek(std::int64_t distance, int whence) {
    errno = 0;
    std::int64_t target = 0;
    const std::int64_t from = whence == fromThePosition ? position : 0;
    if ((whence != fromTheStart && whence != fromThePosition) ||
        __builtin_add_overflow(from, distance, &target) || target < 0) {
        errno = EINVAL;
        return -1;
    }
    position = target;
    return position;
}

std::int64_t ZephaneFTPTransport::read(void* data, std::uint64_t length) {
    auto* const bytes = static_cast<std::byte*>(data);
    return forEachPiece(
        length, [&](std::uint64_t done, std::uint64_t size) { return readPiece(bytes + done, size); });
}

std::int64_t ZephaneFTPTransport::write(const void* data, std::uint64_t length) {
    const auto* const bytes = static_cast<const std::byte*>(data);
    return forEachPiece(
        length, [&](std::uint64_t done, std::uint64_t size) { return writePiece(bytes + done, size); });
}

std::int64_t ZephaneFTPTransport::forEachPiece(std::uint64_t length, const PieceOperation& operation) {
    std::uint64_t done = 0;
    while (done < length) {
        const std::uint64_t size = std::min(length - done, maxPieceBytes);
        const std::int64_t count = operation(done, size);
        if (count != static_cast<std::int64_t>(size)) {
            return static_cast<std::int64_t>(done) + count;
        }
        done += size;
    }
    return static_cast<std::int64_t>(length);
}

std::int64_t ZephaneFTPTransport::readPiece(void* data, std::uint64_t length) {
    if (!seekClient("ZephaneFTP read failed: Failed to seek to offset ")) {
        return -1;
    }
    zephane::Status status;
    const std::int64_t count = client->read(data, length, status);
    if (status.code < 0) {
        report("Couldn't read " + std::to_string(length) + " from zephane client.", status,
               &whyNotTransferred(status.code));
    }
    position += count;
    return count;
}

std::int64_t ZephaneFTPTransport::writePiece(const void* data, std::uint64_t length) {
    if (!seekClient("ZephaneFTP write failed: Failed to seek to offset ")) {
        return -1;
    }
    zephane::Status status;
    const std::int64_t count = client->write(data, length, 0, status);
    if (status.code < 0) {
        report("Couldn't write " + std::to_string(length) + " to zephane client.", status,
               &whyNotTransferred(status.code));
    }
    position += count;
    return count;
}

bool ZephaneFTPTransport::punchHole(std::uint64_t length) {
    if (!seekClient("ZephaneFTP hole punch failed: Failed to seek to ")) {
        return false;
    }
    const zephane::Status status = client->punchHole(length);
    if (status.code != 0) {
        report("Failed to hole punch " + std::to_string(length) + " via zephane client.", status);
        return false;
    }
    position += static_cast<std::int64_t>(length);
    return true;
}

bool ZephaneFTPTransport::seekClient(const char* failure) {
    if (!client) {
        errno = ENOTCONN;
        return false;
    }
    const std::int64_t at = remotePosition();
    const std::int64_t reached = client->seek(at, fromTheStart);
    if (reached == at) {
        return true;
    }
    const int error = reached < 0 ? errno : EIO;
    info::LogEntry(logger, info::level::error)
        << failure << at << " in remote target with size " << client->size();
    errno = error;
    return false;
}

std::int64_t ZephaneFTPTransport::remotePosition() const {
    std::int64_t sum = 0;
    const bool isTooFar = __builtin_add_overflow(position, offset, &sum);
    return isTooFar ? std::numeric_limits<std::int64_t>::max() : sum;
}

void ZephaneFTPTransport::report(const std::string& failure, const zephane::Status& status,
                                 const info::Reason* reason) {
    info::LogEntry(logger, info::level::error, reason)
        << failure << " code: " << status.code
        << " message: " << printable(status.text); // may come from the server
    errno = errnoOf(status.code);
}

bool ZephaneFTPTransport::supportsHolePunching() const {
    return true;
}

void ZephaneFTPTransport::disconnect() {
    if (!client) {
        return;
    }
    const zephane::Status status = client->close();
    if (status.code != 0 && status.code != zephane::Status::alreadyClosed) {
        report("Couldn't close zephane client connection.", status);
    }
}

} // namespace agent::core
