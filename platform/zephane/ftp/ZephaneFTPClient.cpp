#include "zephane/ftp/ZephaneFTPClient.h"

#include "zephane/ftp/Connection.h"
#include "zephane/wire/Proof.h"

#include <cerrno>
#include <utility>

namespace zephane {

namespace {

wire::ClientId randomId() {
    wire::ClientId id{};
    wire::fillRandomly(id);
    return id;
}

/// A random ID of this process: a server lets only the connections of one process write to an image at a
/// time.
const wire::ClientId& processId() {
    static const wire::ClientId id = randomId();
    return id;
}

Status movedAway() {
    return {-ENOTCONN, "the client has been moved away"};
}

} // namespace

ZephaneFTPClient::ZephaneFTPClient(std::unique_ptr<SocketImpl> socket, std::string host, unsigned short port,
                                   std::string path, unsigned long volumeId, unsigned long flags,
                                   std::string secret, ClientPatience patience) {
    SessionPeer peer{std::move(host), port, {}, std::move(secret)};
    peer.hello.flags = flags;
    peer.hello.image = {std::move(path), volumeId};
    peer.hello.client = processId();
    connection = std::make_unique<Connection>(std::move(socket), std::move(peer), patience);
}

ZephaneFTPClient::ZephaneFTPClient(ZephaneFTPClient&& other) noexcept = default;
ZephaneFTPClient& ZephaneFTPClient::operator=(ZephaneFTPClient&& other) noexcept = default;
ZephaneFTPClient::~ZephaneFTPClient() = default;

Status ZephaneFTPClient::open() {
    return connection ? connection->open() : movedAway();
}

std::int64_t ZephaneFTPClient::seek(std::int64_t position, int whence) {
    if (!connection) {
        errno = ENOTCONN;
        return -1;
    }
    return connection->seek(position, whence);
}

std::int64_t ZephaneFTPClient::read(void* data, std::size_t length, Status& status) {
    if (!connection) {
        status = movedAway();
        return 0;
    }
    return connection->read(data, length, status);
}

std::int64_t ZephaneFTPClient::write(const void* data, std::size_t length, int options, Status& status) {
    if (!connection) {
        status = movedAway();
        return 0;
    }
    return connection->write(data, length, options, status);
}

Status ZephaneFTPClient::punchHole(std::uint64_t length) {
    return connection ? connection->punchHole(length) : movedAway();
}

std::uint64_t ZephaneFTPClient::size() const {
    return connection ? connection->size() : 0;
}

Status ZephaneFTPClient::close() {
    return connection ? connection->close() : Status{Status::alreadyClosed, "there is nothing to close"};
}

} // namespace zephane
