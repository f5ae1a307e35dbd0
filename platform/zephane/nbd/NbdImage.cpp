#include "zephane/nbd/NbdImage.h"

#include <algorithm>
#include <cerrno>
#include <deque>
#include <functional>
#include <libnbd.h>
#include <optional>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace zephane {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t holesAtOnce = 16;

struct Close {
    void operator()(nbd_handle* handle) const noexcept { nbd_close(handle); }
};

/// A request to the server, for error texts.
struct Request {
    const char* name = "";
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
};

std::string describe(const Request& request) {
    return std::string("cannot ") + request.name + " " + std::to_string(request.length) + " bytes at " +
           std::to_string(request.offset);
}

std::string textOf(int error) {
    return std::generic_category().message(error);
}

/// The error of the last libnbd call. libnbd has no errno for some errors; those become EIO.
NbdError lastError(const std::string& what) {
    const int error = nbd_get_errno() != 0 ? nbd_get_errno() : EIO;
    const char* const text = nbd_get_error();
    return {error, what + ": " + (text != nullptr ? text : textOf(error))};
}

} // namespace

/// The libnbd handle and the requests in flight.
class NbdImage::Connection {
public:
    using Connect = std::function<int(nbd_handle*)>;

    Connection(const Connect& connect, NbdPatience patience);

    [[nodiscard]] bool isAlive() const;
    nbd_handle* use();
    /// Waits until the server has answered the request with this cookie.
    void await(std::int64_t cookie, const Request& request);
    void queueHole(const Request& request);
    void awaitHoles();
    void end();
    void checkRange(const Request& request) const;
    void checkSize(const Request& request) const;
    void checkWritable(const Request& request) const;

    std::uint64_t size = 0;
    bool isReadOnly = false;
    bool isSharedByConnections = false;
    bool canFlush = false;

private:
    struct Hole {
        std::int64_t cookie;
        Request request;
    };

    void negotiate();
    void learn();
    void poll(Clock::time_point until, const std::string& what);
    void awaitOldestHole();

    std::unique_ptr<nbd_handle, Close> handle;
    NbdPatience patience;
    std::deque<Hole> holes;
    std::optional<NbdError> failedHole;
};

NbdImage::Connection::Connection(const Connect& connect, NbdPatience patience)
    : handle(nbd_create()), patience(patience) {
    if (!handle) {
        throw lastError("cannot speak NBD");
    }
    if (connect(handle.get()) != 0) {
        throw lastError("cannot reach the image");
    }
    negotiate();
    learn();
}

void NbdImage::Connection::negotiate() {
    const auto until = Clock::now() + patience.connecting;
    while (nbd_aio_is_ready(handle.get()) == 0) {
        if (!isAlive()) {
            throw NbdError(ECONNRESET, "cannot reach the image: the server has ended the connection");
        }
        poll(until, "cannot reach the image");
    }
}

void NbdImage::Connection::learn() {
    const std::int64_t bytes = nbd_get_size(handle.get());
    if (bytes < 0) {
        throw lastError("the image has no size");
    }
    size = static_cast<std::uint64_t>(bytes);
    isReadOnly = nbd_is_read_only(handle.get()) != 0;
    isSharedByConnections = nbd_can_multi_conn(handle.get()) > 0;
    canFlush = nbd_can_flush(handle.get()) > 0;
}

bool NbdImage::Connection::isAlive() const {
    return handle && nbd_aio_is_dead(handle.get()) == 0 && nbd_aio_is_closed(handle.get()) == 0;
}

nbd_handle* NbdImage::Connection::use() {
    if (!isAlive()) {
        throw NbdError(ENOTCONN, "the connection to the image has ended");
    }
    return handle.get();
}

/// Lets libnbd send and receive. If no answer comes in time, closes the handle, because libnbd would
/// otherwise write a late answer into the caller's buffer, which may be gone.
void NbdImage::Connection::poll(Clock::time_point until, const std::string& what) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now());
    if (left.count() <= 0) {
        handle.reset();
        throw NbdError(ETIMEDOUT, what + ": no answer in time");
    }
    if (nbd_poll(handle.get(), static_cast<int>(left.count())) < 0 && nbd_get_errno() != EINTR) {
        const NbdError error = lastError(what);
        handle.reset();
        throw error;
    }
}

void NbdImage::Connection::await(std::int64_t cookie, const Request& request) {
    if (cookie < 0) {
        throw lastError(describe(request));
    }
    const auto until = Clock::now() + patience.answering;
    for (;;) {
        const int result = nbd_aio_command_completed(handle.get(), static_cast<std::uint64_t>(cookie));
        if (result > 0) {
            return;
        }
        if (result < 0) {
            throw lastError(describe(request));
        }
        poll(until, describe(request));
    }
}

void NbdImage::Connection::queueHole(const Request& request) {
    if (holes.size() == holesAtOnce) {
        awaitOldestHole();
    }
    if (!isAlive()) {
        awaitHoles();
    }
    const std::int64_t cookie = nbd_aio_zero(use(), request.length, request.offset, NBD_NULL_COMPLETION, 0);
    if (cookie < 0) {
        throw lastError(describe(request));
    }
    holes.push_back({cookie, request});
}

void NbdImage::Connection::awaitOldestHole() {
    const Hole hole = holes.front();
    holes.pop_front();
    try {
        await(hole.cookie, hole.request);
    } catch (const NbdError& error) {
        if (!failedHole) {
            failedHole.emplace(error);
        }
    }
    if (!isAlive()) {
        holes.clear(); // no answers come any more
    }
}

void NbdImage::Connection::awaitHoles() {
    while (!holes.empty()) {
        awaitOldestHole();
    }
    if (failedHole) {
        const NbdError error = *failedHole;
        failedHole.reset();
        throw error;
    }
}

void NbdImage::Connection::end() {
    if (nbd_aio_disconnect(use(), 0) != 0) {
        throw lastError("cannot say good-bye");
    }
    const auto until = Clock::now() + patience.answering;
    while (isAlive()) {
        poll(until, "the server doesn't end the connection");
    }
}

void NbdImage::Connection::checkRange(const Request& request) const {
    if (request.length > size || request.offset > size - request.length) {
        throw NbdError(EINVAL, describe(request) + ": the image has " + std::to_string(size) + " bytes");
    }
}

void NbdImage::Connection::checkSize(const Request& request) const {
    if (request.length > wire::requestBytes) {
        throw NbdError(EINVAL, describe(request) + ": that is too much for one request");
    }
}

void NbdImage::Connection::checkWritable(const Request& request) const {
    if (isReadOnly) {
        throw NbdError(EROFS, describe(request) + ": the image is read-only");
    }
}

NbdImage::NbdImage(int socket, NbdPatience patience)
    : connection(std::make_unique<Connection>(
          [socket](nbd_handle* handle) { return nbd_aio_connect_socket(handle, socket); }, patience)) {}

NbdImage::NbdImage(const std::string& path, NbdPatience patience)
    : connection(std::make_unique<Connection>(
          [&path](nbd_handle* handle) { return nbd_aio_connect_unix(handle, path.c_str()); }, patience)) {}

NbdImage::NbdImage(NbdImage&& other) noexcept = default;
NbdImage& NbdImage::operator=(NbdImage&& other) noexcept = default;
NbdImage::~NbdImage() = default;

std::uint64_t NbdImage::size() const {
    return connection->size;
}

bool NbdImage::isReadOnly() const {
    return connection->isReadOnly;
}

bool NbdImage::isSharedByConnections() const {
    return connection->isSharedByConnections;
}

bool NbdImage::isAlive() const {
    return connection->isAlive();
}

void NbdImage::read(std::span<std::uint8_t> data, std::uint64_t offset) {
    const Request request{"read", offset, data.size()};
    connection->checkRange(request);
    connection->checkSize(request);
    if (!data.empty()) {
        connection->await(
            nbd_aio_pread(connection->use(), data.data(), data.size(), offset, NBD_NULL_COMPLETION, 0),
            request);
    }
}

void NbdImage::write(std::span<const std::uint8_t> data, std::uint64_t offset) {
    const Request request{"write", offset, data.size()};
    connection->checkRange(request);
    connection->checkSize(request);
    connection->checkWritable(request);
    if (!data.empty()) {
        connection->await(
            nbd_aio_pwrite(connection->use(), data.data(), data.size(), offset, NBD_NULL_COMPLETION, 0),
            request);
    }
}

void NbdImage::queueHole(std::uint64_t offset, std::uint64_t length) {
    connection->checkRange({"make a hole of", offset, length});
    connection->checkWritable({"make a hole of", offset, length});
    for (std::uint64_t done = 0; done < length;) {
        const std::uint64_t part = std::min<std::uint64_t>(length - done, wire::requestBytes);
        connection->queueHole({"make a hole of", offset + done, part});
        done += part;
    }
}

void NbdImage::awaitHoles() {
    connection->awaitHoles();
}

void NbdImage::flush() {
    nbd_handle* const handle = connection->use();
    if (connection->canFlush) {
        connection->await(nbd_aio_flush(handle, NBD_NULL_COMPLETION, 0), {"flush", 0, connection->size});
    }
}

void NbdImage::end() {
    connection->end();
}

} // namespace zephane
