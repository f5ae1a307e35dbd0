#include "NbdImage.h"

#include "Reading.h"

#include <algorithm>
#include <deque>
#include <exception>
#include <libnbd.h>
#include <stdexcept>
#include <utility>

namespace restore {

namespace {

constexpr std::size_t requestBytes = 256UL * 1024;
constexpr std::size_t mostUnderWay = 16;
constexpr int pollTimeoutMilliseconds = 60'000;

std::string lastError() {
    const char* const reason = ::nbd_get_error();
    return reason == nullptr ? "unknown error" : reason;
}

/// Thrown if it is unknown whether the request will still be answered.
class NoAnswer : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Waits until the request is done. Throws std::runtime_error if it has failed.
void await(nbd_handle* connection, std::int64_t cookie) {
    for (;;) {
        const int done = ::nbd_aio_command_completed(connection, static_cast<std::uint64_t>(cookie));
        if (done > 0) {
            return;
        }
        if (done < 0) {
            throw std::runtime_error(lastError());
        }
        const int polled = ::nbd_poll(connection, pollTimeoutMilliseconds);
        if (polled < 0) {
            throw NoAnswer(lastError());
        }
        if (polled == 0) {
            throw NoAnswer("no answer within a minute");
        }
    }
}

} // namespace

void NbdImage::Close::operator()(nbd_handle* connection) const noexcept {
    ::nbd_close(connection);
}

NbdImage::NbdImage(std::string uri, std::uint64_t offset)
    : uri(std::move(uri)), begin(offset), bytes(bytesAfter(this->uri, connect(), begin)) {}

NbdImage::~NbdImage() = default;

std::uint64_t NbdImage::connect() {
    connection.reset(::nbd_create());
    if (!connection || ::nbd_connect_uri(connection.get(), uri.c_str()) != 0) {
        throw std::runtime_error("the image " + uri + " can't be reached: " + lastError());
    }
    const std::int64_t all = ::nbd_get_size(connection.get());
    if (all < 0) {
        throw std::runtime_error("the size of " + uri + " can't be told: " + lastError());
    }
    return static_cast<std::uint64_t>(all);
}

void NbdImage::read(std::span<std::byte> into, std::uint64_t offset) {
    readWithRetries(uri, offset, [&] {
        if (connection && ::nbd_aio_is_ready(connection.get()) != 1) {
            connection.reset();
        }
        if (!connection) {
            connect();
        }
        tryRead(into, offset);
    });
}

/// Even after a failure no request is in flight when this ends, unless the connection is gone.
void NbdImage::tryRead(std::span<std::byte> into, std::uint64_t offset) {
    std::deque<std::int64_t> underWay;
    std::exception_ptr failure;
    const auto awaitOldestRequest = [&] {
        try {
            await(connection.get(), underWay.front());
        } catch (const NoAnswer&) {
            connection.reset();
            throw;
        } catch (const std::runtime_error&) {
            failure = std::current_exception();
        }
        underWay.pop_front();
    };
    for (std::size_t position = 0; position < into.size() && !failure; position += requestBytes) {
        if (underWay.size() == mostUnderWay) {
            awaitOldestRequest();
        }
        const std::span piece = into.subspan(position, std::min(requestBytes, into.size() - position));
        const std::int64_t cookie = ::nbd_aio_pread(connection.get(), piece.data(), piece.size(),
                                                    begin + offset + position, NBD_NULL_COMPLETION, 0);
        if (cookie < 0) {
            failure = std::make_exception_ptr(std::runtime_error(lastError()));
            break;
        }
        underWay.push_back(cookie);
    }
    while (!underWay.empty()) {
        awaitOldestRequest();
    }
    if (failure) {
        std::rethrow_exception(failure);
    }
}

} // namespace restore
