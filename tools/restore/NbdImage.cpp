#include "NbdImage.h"

#include "Reading.h"

#include <algorithm>
#include <deque>
#include <libnbd.h>
#include <stdexcept>
#include <utility>

namespace restore {

namespace {

constexpr std::size_t requestBytes = 256UL * 1024;
constexpr std::size_t mostUnderWay = 16;
constexpr int patienceMilliseconds = 60'000;

[[noreturn]] void fail(const std::string& what) {
    const char* const reason = ::nbd_get_error();
    throw std::runtime_error(what + ": " + (reason == nullptr ? "unknown error" : reason));
}

/// Until the command is done.
void await(nbd_handle* connection, std::int64_t cookie) {
    for (;;) {
        const int done = ::nbd_aio_command_completed(connection, static_cast<std::uint64_t>(cookie));
        if (done > 0) {
            return;
        }
        const int polled = done < 0 ? -1 : ::nbd_poll(connection, patienceMilliseconds);
        if (polled < 0) {
            fail("a request has failed");
        }
        if (polled == 0) {
            throw std::runtime_error("no answer within a minute");
        }
    }
}

} // namespace

void NbdImage::Close::operator()(nbd_handle* connection) const noexcept {
    ::nbd_close(connection);
}

NbdImage::NbdImage(std::string uri, std::uint64_t offset) : uri(std::move(uri)), begin(offset) {
    bytes = bytesBehind(this->uri, connect(), begin);
}

NbdImage::~NbdImage() = default;

std::uint64_t NbdImage::connect() {
    connection.reset(::nbd_create());
    if (!connection || ::nbd_connect_uri(connection.get(), uri.c_str()) != 0) {
        fail("the image " + uri + " can't be reached");
    }
    const std::int64_t all = ::nbd_get_size(connection.get());
    if (all < 0) {
        fail("the size of " + uri + " can't be told");
    }
    return static_cast<std::uint64_t>(all);
}

void NbdImage::read(std::span<std::byte> into, std::uint64_t offset) {
    readPatiently(uri, offset, [&] {
        try {
            tryRead(into, offset);
        } catch (...) {
            connection.reset(); // and with it whatever is still to be written to the buffer
            throw;
        }
    });
}

void NbdImage::tryRead(std::span<std::byte> into, std::uint64_t offset) {
    if (!connection) {
        connect();
    }
    std::deque<std::int64_t> underWay;
    for (std::size_t position = 0; position < into.size(); position += requestBytes) {
        if (underWay.size() == mostUnderWay) {
            await(connection.get(), underWay.front());
            underWay.pop_front();
        }
        const std::span piece = into.subspan(position, std::min(requestBytes, into.size() - position));
        underWay.push_back(::nbd_aio_pread(connection.get(), piece.data(), piece.size(),
                                           begin + offset + position, NBD_NULL_COMPLETION, 0));
        if (underWay.back() < 0) {
            fail("no request can be made");
        }
    }
    for (const std::int64_t cookie : underWay) {
        await(connection.get(), cookie);
    }
}

} // namespace restore
