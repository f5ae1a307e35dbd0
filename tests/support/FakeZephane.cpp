#include "support/FakeZephane.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <utility>
#include <zephane/ftp/ZephaneFTPClient.h>
#include <zephane/socket/BasicSocket.h>
#include <zephane/socket/Compressor.h>
#include <zephane/socket/Decompressor.h>
#include <zephane/socket/TLSTransport.h>
#include <zephane/wire/Limits.h>

namespace agent::test {

namespace {

FakeZephane* current = nullptr;

} // namespace

FakeZephane::FakeZephane() {
    if (current != nullptr) {
        std::abort();
    }
    current = this;
}

FakeZephane::~FakeZephane() {
    current = nullptr;
}

FakeZephane& FakeZephane::get() {
    return *current;
}

void FakeZephane::script(const std::string& function, const std::vector<Answer>& next) {
    answers[function].assign(next.begin(), next.end());
}

bool FakeZephane::isScripted(const std::string& function, Answer& answer) {
    auto& next = answers[function];
    if (next.empty()) {
        return false;
    }
    answer = std::move(next.front());
    next.pop_front();
    return true;
}

} // namespace agent::test

namespace zephane {

using agent::test::FakeZephane;

namespace {

/// Records that an object is constructed. Throws if the script says so.
template <typename... Arguments>
void make(const std::string& type, const Arguments&... arguments) {
    FakeZephane::get().note(type, arguments...);
    FakeZephane::Answer answer;
    if (FakeZephane::get().isScripted(type, answer) && answer.code != 0) {
        throw std::runtime_error(answer.text);
    }
}

[[noreturn]] void refuse() {
    throw std::logic_error("The transport has no business with that.");
}

std::string nameOf(const std::shared_ptr<Filter>& filter) {
    if (dynamic_cast<Compressor*>(filter.get()) != nullptr) {
        return "Compressor";
    }
    return dynamic_cast<Decompressor*>(filter.get()) != nullptr ? "Decompressor" : "?";
}

/// "reading: NAME... writing: NAME..."
std::string describe(const Filters& filters) {
    std::string text = "reading:";
    for (const auto& filter : filters.reading) {
        text += " " + nameOf(filter);
    }
    text += " writing:";
    for (const auto& filter : filters.writing) {
        text += " " + nameOf(filter);
    }
    return text;
}

} // namespace

// --- the socket: it can be constructed and does nothing else. Some functions touch a member only because
// clang warns about private members that are never used.

class TLSTransport::Connection {};

TLSTransport::TLSTransport(const std::string& certificate, const std::string& authority,
                           std::chrono::milliseconds patience)
    : patience(patience) {
    make("TLSTransport", "'" + certificate + "'", "'" + authority + "'");
}

TLSTransport::~TLSTransport() = default;

asio::awaitable<void> TLSTransport::connect(const std::string& /*host*/, unsigned short /*port*/) {
    refuse();
}

wire::ChannelBinding TLSTransport::channelBinding() {
    refuse();
}

asio::awaitable<std::size_t> TLSTransport::readSome(asio::mutable_buffer /*buffer*/) {
    refuse();
}

asio::awaitable<void> TLSTransport::write(asio::const_buffer /*bytes*/) {
    refuse();
}

void TLSTransport::close() noexcept {
    patience = {};
}

BasicSocket::BasicSocket(std::unique_ptr<Transport> transport) : owned(std::move(transport)) {
    make("BasicSocket", dynamic_cast<TLSTransport*>(owned.get()) != nullptr ? "TLSTransport" : "?");
}

BasicSocket::~BasicSocket() = default;

Compressor::Compressor() {
    make("Compressor");
}

Compressor::~Compressor() = default;

void Compressor::feed(std::span<const std::uint8_t> /*input*/) {
    refuse();
}

std::span<const std::uint8_t> Compressor::next() {
    hasMore = false;
    refuse();
}

void Compressor::Free::operator()(ZSTD_CCtx_s* /*context*/) const noexcept {}

Decompressor::Decompressor() {
    make("Decompressor");
}

Decompressor::~Decompressor() = default;

void Decompressor::feed(std::span<const std::uint8_t> /*input*/) {
    refuse();
}

std::span<const std::uint8_t> Decompressor::next() {
    hasMore = false;
    refuse();
}

void Decompressor::Free::operator()(ZSTD_DCtx_s* /*context*/) const noexcept {}

// --- the client

/// A connection to the image in memory. An error that breaks the connection ends it for good. Holes are
/// punched asynchronously: on a broken connection punchHole() succeeds and the next call reports the failure.
class ZephaneFTPClient::Connection {
public:
    Connection(std::unique_ptr<SocketImpl> socket, unsigned long flags)
        : socket(std::move(socket)), flags(flags) {
        ++fake.clients;
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() {
        --fake.clients;
        fake.note("gone", number);
    }

    Status open() {
        fake.note("open", number);
        FakeZephane::Answer answer;
        if (fake.isScripted("open", answer)) {
            return {answer.code, answer.text};
        }
        state = State::open;
        return {};
    }

    std::int64_t seek(std::int64_t target) {
        FakeZephane::Answer answer;
        if (fake.isScripted("seek", answer)) {
            errno = -answer.code;
            return answer.result;
        }
        errno = state == State::open ? EINVAL : state == State::broken ? EIO : ENOTCONN;
        if (state != State::open || target < 0 || target > size()) {
            return -1;
        }
        position = target;
        return position;
    }

    std::int64_t read(void* data, std::size_t length, Status& status) {
        const std::size_t count = allow("read", length, status);
        std::copy_n(fake.image.begin() + position, count, static_cast<unsigned char*>(data));
        return moveBy(count);
    }

    std::int64_t write(const void* data, std::size_t length, Status& status) {
        if ((flags & wire::writableFlag) == 0) {
            status = {-EROFS, "it is only for reading"};
            return 0;
        }
        const std::size_t count = allow("write", length, status);
        if (status.code == 0 && count == 0) {
            status = {-ENOSPC, "the image ends here"};
        }
        const auto* const bytes = static_cast<const unsigned char*>(data);
        const auto place = fake.image.begin() + position;
        const bool compares = (flags & wire::compareFlag) != 0;
        if (count > 0 && !(compares && std::equal(bytes, bytes + count, place))) {
            std::copy_n(bytes, count, place);
            ++fake.changes;
        }
        return moveBy(count);
    }

    Status punchHole(std::uint64_t length) {
        FakeZephane::Answer answer;
        if (fake.isScripted("punchHole", answer)) {
            return {answer.code, answer.text};
        }
        if (state != State::open || length > static_cast<std::uint64_t>(size() - position)) {
            return {state == State::open ? -EINVAL : -EIO, "there can't be such a hole"};
        }
        if (!fake.isBroken) {
            std::fill_n(fake.image.begin() + position, length, 0);
            ++fake.changes;
        }
        moveBy(length);
        return {};
    }

    Status close() {
        FakeZephane::Answer answer;
        if (fake.isScripted("close", answer)) {
            return {answer.code, answer.text};
        }
        if (state == State::closed) {
            return {Status::alreadyClosed, "there is nothing to close"};
        }
        state = fake.isBroken ? State::broken : state;
        if (state == State::broken) {
            return {-EIO, "the connection has broken"};
        }
        state = State::closed;
        return {};
    }

    [[nodiscard]] std::int64_t size() const { return static_cast<std::int64_t>(fake.image.size()); }

private:
    enum class State { unused, open, broken, closed };

    /// Returns how many bytes may be transferred. If that is fewer than asked for and not because the image
    /// ends, sets status to the reason.
    std::size_t allow(const std::string& function, std::size_t length, Status& status) {
        const auto left = static_cast<std::size_t>(size() - position);
        FakeZephane::Answer answer;
        if (fake.isScripted(function, answer)) {
            status = {answer.code, answer.text};
            return std::min({length, left, static_cast<std::size_t>(answer.result)});
        }
        if (state == State::open && fake.isBroken) {
            state = State::broken;
        }
        if (state != State::open) {
            status = {state == State::broken ? -EIO : -ENOTCONN, "there is no connection"};
            return 0;
        }
        return std::min(length, left);
    }

    std::int64_t moveBy(std::uint64_t count) {
        position += static_cast<std::int64_t>(count);
        return static_cast<std::int64_t>(count);
    }

    FakeZephane& fake = FakeZephane::get();
    const int number = ++fake.made;
    std::unique_ptr<SocketImpl> socket;
    unsigned long flags;
    State state = State::unused;
    std::int64_t position = 0;
};

ZephaneFTPClient::ZephaneFTPClient(std::unique_ptr<SocketImpl> socket, std::string host, unsigned short port,
                                   std::string path, unsigned long volumeId, unsigned long flags,
                                   std::string secret, ClientPatience /*patience*/) {
    FakeZephane::get().note("ZephaneFTPClient", host, port, path, volumeId, flags, secret,
                            describe(socket->filters()));
    connection = std::make_unique<Connection>(std::move(socket), flags);
}

ZephaneFTPClient::ZephaneFTPClient(ZephaneFTPClient&& other) noexcept = default;
ZephaneFTPClient& ZephaneFTPClient::operator=(ZephaneFTPClient&& other) noexcept = default;
ZephaneFTPClient::~ZephaneFTPClient() = default;

Status ZephaneFTPClient::open() {
    return connection->open();
}

std::int64_t ZephaneFTPClient::seek(std::int64_t position, int whence) {
    FakeZephane::get().note("seek", position, whence);
    return connection->seek(position);
}

std::int64_t ZephaneFTPClient::read(void* data, std::size_t length, Status& status) {
    FakeZephane::get().note("read", length);
    return connection->read(data, length, status);
}

std::int64_t ZephaneFTPClient::write(const void* data, std::size_t length, int options, Status& status) {
    FakeZephane::get().note("write", length, options);
    return connection->write(data, length, status);
}

Status ZephaneFTPClient::punchHole(std::uint64_t length) {
    FakeZephane::get().note("punchHole", length);
    return connection->punchHole(length);
}

std::uint64_t ZephaneFTPClient::size() const {
    return static_cast<std::uint64_t>(connection->size());
}

Status ZephaneFTPClient::close() {
    FakeZephane::get().note("close");
    return connection->close();
}

} // namespace zephane
