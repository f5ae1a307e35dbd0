#include "zephane/ftp/Connection.h"

#include "zephane/socket/Transport.h"
#include "zephane/wire/Limits.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace zephane {

namespace {

/// The amount of data, in bytes, after which a flush is sent, so that no flush takes a slow disk longer than
/// the time limit for an answer.
constexpr std::uint64_t flushEvery = 512 * wire::mebibyte;

Status statusOf(const Failure& failure) {
    return {-failure.error, failure.text};
}

std::chrono::milliseconds timeLeft(Session::Clock::time_point until) {
    return std::chrono::ceil<std::chrono::milliseconds>(until - Session::Clock::now());
}

} // namespace

ZephaneFTPClient::Connection::Connection(std::unique_ptr<SocketImpl> socket, SessionPeer peer,
                                         ClientPatience patience)
    : socket(std::move(socket)),
      peer(std::move(peer)),
      patience(patience),
      isWritable((this->peer.hello.flags & wire::writableFlag) != 0),
      compares((this->peer.hello.flags & wire::compareFlag) != 0) {}

ZephaneFTPClient::Connection::~Connection() = default;

Status ZephaneFTPClient::Connection::open() {
    if (std::exchange(wasOpened, true)) {
        return {-EALREADY, "the client has been opened before"};
    }
    try {
        connect();
        return {};
    } catch (...) {
        return endWithStatus(failureOf(std::current_exception()));
    }
}

void ZephaneFTPClient::Connection::connect() {
    const auto until = Session::Clock::now() + patience.opening;
    session = std::make_unique<Session>(std::move(socket), peer, patience.answering);
    const std::uint64_t granted = session->open(until);
    image.emplace(session->takeLocal(), NbdPatience{timeLeft(until), patience.answering});
    if (isWritable && ((granted & wire::writableFlag) == 0 || image->isReadOnly())) {
        throw CallError(EROFS, "the image cannot be written to");
    }
    serverCompares = (granted & wire::compareFlag) != 0;
    imageSize = image->size();
}

std::int64_t ZephaneFTPClient::Connection::seek(std::int64_t to, int whence) {
    if (endStatus || !image) {
        errno = endStatus ? EIO : ENOTCONN;
        return -1;
    }
    if (whence != 0 || to < 0 || static_cast<std::uint64_t>(to) > imageSize) {
        errno = EINVAL;
        return -1;
    }
    position = static_cast<std::uint64_t>(to);
    return to;
}

std::int64_t ZephaneFTPClient::Connection::read(void* data, std::size_t length, Status& status) {
    const std::uint64_t begin = position;
    status = runGuarded([&] { readAll({static_cast<std::uint8_t*>(data), length}); });
    return static_cast<std::int64_t>(position - begin);
}

std::int64_t ZephaneFTPClient::Connection::write(const void* data, std::size_t length, int options,
                                                 Status& status) {
    const std::uint64_t begin = position;
    status = runGuarded([&] {
        requireWritable();
        if (options != 0) {
            throw CallError(EINVAL, "there are no options of writing");
        }
        writeAll({static_cast<const std::uint8_t*>(data), length});
    });
    return static_cast<std::int64_t>(position - begin);
}

Status ZephaneFTPClient::Connection::punchHole(std::uint64_t length) {
    return runGuarded([&] {
        requireWritable();
        queueHole(length);
    });
}

Status ZephaneFTPClient::Connection::close() {
    if (endStatus) {
        return *endStatus;
    }
    if (!image) {
        return flushFailure ? statusOf(*flushFailure)
                            : Status{Status::alreadyClosed, "there is nothing to close"};
    }
    Status status = runGuarded([this] { image->awaitHoles(); });
    const Status flushed = runGuarded([this] { flush(); });
    if (!endStatus) {
        disconnect();
    }
    return status.code != 0 ? status : flushed;
}

/// Called after the last flush, whose result `close` returns, so a failure here doesn't matter.
void ZephaneFTPClient::Connection::disconnect() {
    runGuarded([this] { image->end(); });
    endStatus.reset();
    image.reset();
    session->end();
}

Status ZephaneFTPClient::Connection::runGuarded(const std::function<void()>& work) {
    if (endStatus) {
        return *endStatus;
    }
    if (!image) {
        return {-ENOTCONN, "the client isn't connected"};
    }
    try {
        work();
        return {};
    } catch (...) {
        const Failure failure = failureOf(std::current_exception());
        if (!image->isAlive() || session->hasEnded()) {
            endStatus = endWithStatus(failure);
        }
        return endStatus.value_or(statusOf(failure));
    }
}

/// Ends the connection. If an earlier failure has ended it already, adds that failure's text, which explains
/// more than the failure of the call.
Status ZephaneFTPClient::Connection::endWithStatus(const Failure& failure) {
    image.reset();
    const std::optional<Failure> reason = session ? session->end() : std::nullopt;
    if (!reason || reason->text == failure.text) {
        return statusOf(failure);
    }
    return {-reason->error, failure.text + " (" + reason->text + ")"};
}

void ZephaneFTPClient::Connection::readAll(std::span<std::uint8_t> data) {
    if (data.empty()) {
        return;
    }
    image->awaitHoles();
    flush(); // so that the data read is the data stored
    data = data.first(std::min<std::uint64_t>(data.size(), imageSize - position));
    while (!data.empty()) {
        const auto part = data.first(std::min(data.size(), wire::requestBytes));
        image->read(part, position);
        position += part.size();
        data = data.subspan(part.size());
    }
}

void ZephaneFTPClient::Connection::writeAll(std::span<const std::uint8_t> data) {
    if (data.empty()) {
        return;
    }
    image->awaitHoles();
    if (position == imageSize) {
        throw CallError(ENOSPC, "the image ends here");
    }
    data = data.first(std::min<std::uint64_t>(data.size(), imageSize - position));
    while (!data.empty()) {
        const auto part = data.first(std::min(data.size(), wire::digestRange));
        writePart(part);
        data = data.subspan(part.size());
    }
}

void ZephaneFTPClient::Connection::writePart(std::span<const std::uint8_t> part) {
    const std::uint64_t begin = position;
    for (const Run& run : runsToWrite(part)) {
        position = begin + run.offset; // the image is right up to here
        unflushed.add(position, run.length);
        image->write(part.subspan(run.offset, run.length), position);
    }
    position = begin + part.size();
    if (unflushed.bytes() >= flushEvery) {
        flush();
    }
}

void ZephaneFTPClient::Connection::queueHole(std::uint64_t length) {
    if (length > imageSize - position) {
        throw CallError(EINVAL, "the hole would end behind the image");
    }
    unflushed.add(position, length);
    image->queueHole(position, length);
    position += length;
}

/// After a failed flush, earlier writes can't be relied on even if a later flush succeeds: a kernel discards
/// data that it couldn't write back.
void ZephaneFTPClient::Connection::flush() {
    if (flushFailure) {
        throw CallError(flushFailure->error, flushFailure->text);
    }
    if (unflushed.isEmpty()) {
        return;
    }
    try {
        image->flush();
    } catch (...) {
        flushFailure = failureOf(std::current_exception());
        throw;
    }
    unflushed.clear();
}

void ZephaneFTPClient::Connection::requireWritable() const {
    if (!isWritable) {
        throw CallError(EROFS, "the client has not asked to write");
    }
}

std::vector<Run> ZephaneFTPClient::Connection::runsToWrite(std::span<const std::uint8_t> part) {
    if (!compares) {
        return {{0, part.size()}};
    }
    return serverCompares ? runsByDigests(part) : runsByReading(part);
}

std::vector<Run> ZephaneFTPClient::Connection::runsByDigests(std::span<const std::uint8_t> part) {
    if (unflushed.overlaps(position, part.size())) {
        flush(); // the server reads the image over another connection
    }
    std::vector<wire::Digest> local;
    const auto remote = session->digests({position, static_cast<std::uint32_t>(part.size())},
                                         [&] { local = wire::digestsOf(part); });
    return differingRuns(part.size(), [&](const Run& unit) {
        const std::size_t index = unit.offset / wire::digestUnit;
        return local.at(index) != remote.at(index);
    });
}

std::vector<Run> ZephaneFTPClient::Connection::runsByReading(std::span<const std::uint8_t> part) {
    std::vector<std::uint8_t> remote(part.size());
    image->read(remote, position);
    return differingRuns(part.size(), [&](const Run& unit) {
        return !std::ranges::equal(part.subspan(unit.offset, unit.length),
                                   std::span(remote).subspan(unit.offset, unit.length));
    });
}

} // namespace zephane
