#include "zephane/socket/TLSTransport.h"

#include "zephane/socket/TlsStream.h"

#include <asio/redirect_error.hpp>
#include <asio/steady_timer.hpp>
#include <asio/this_coro.hpp>
#include <asio/use_awaitable.hpp>
#include <cerrno>
#include <optional>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <utility>
#include <vector>

namespace zephane {

namespace {

using asio::ip::tcp;
using Endpoints = std::vector<tcp::endpoint>;

} // namespace

/// The parts of a connection, from the look-up of the host's name on.
class TLSTransport::Connection {
public:
    asio::awaitable<void> establish(const std::string& host, unsigned short port);
    /// Throws std::logic_error before the connection is established.
    TlsStream& established();
    void close() noexcept;

private:
    asio::awaitable<Endpoints> lookUp(const std::string& host, unsigned short port);
    asio::awaitable<asio::error_code> attempt(const tcp::endpoint& endpoint);

    asio::ssl::context context = clientContext();
    bool isClosed = false;
    std::optional<tcp::resolver> resolver;
    std::optional<tcp::socket> socket;
    std::optional<TlsStream> stream;
};

asio::awaitable<void> TLSTransport::Connection::establish(const std::string& host, unsigned short port) {
    const Endpoints endpoints = co_await lookUp(host, port);
    asio::error_code error = asio::error::host_not_found;
    for (const auto& endpoint : endpoints) {
        error = co_await attempt(endpoint);
        if (!error) {
            break;
        }
    }
    if (error) {
        throw asio::system_error(error);
    }
    stream.emplace(std::move(*socket), context);
    co_await stream->handshake(asio::ssl::stream_base::client);
}

/// Opens the socket with SOCK_CLOEXEC, which asio doesn't set, so that programs started meanwhile don't
/// inherit it. With a linger time of 0, closing discards unsent data: a write that was given up must not
/// reach the server after the next connection has written.
asio::awaitable<asio::error_code> TLSTransport::Connection::attempt(const tcp::endpoint& endpoint) {
    if (isClosed) {
        co_return asio::error::operation_aborted;
    }
    const int descriptor = ::socket(endpoint.protocol().family(), SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0) {
        co_return asio::error_code(errno, asio::error::get_system_category());
    }
    const auto executor = co_await asio::this_coro::executor;
    socket.emplace(executor, endpoint.protocol(), descriptor);
    asio::error_code error;
    co_await socket->async_connect(endpoint, asio::redirect_error(asio::use_awaitable, error));
    if (!error) {
        socket->set_option(tcp::socket::linger(true, 0));
    }
    co_return error;
}

asio::awaitable<Endpoints> TLSTransport::Connection::lookUp(const std::string& host, unsigned short port) {
    asio::error_code noAddress;
    const auto address = asio::ip::make_address(host, noAddress);
    Endpoints endpoints;
    if (!noAddress) {
        endpoints.emplace_back(address, port);
        co_return endpoints;
    }
    const auto executor = co_await asio::this_coro::executor;
    resolver.emplace(executor);
    const auto found = co_await resolver->async_resolve(host, std::to_string(port), asio::use_awaitable);
    for (const auto& entry : found) {
        endpoints.push_back(entry.endpoint());
    }
    co_return endpoints;
}

TlsStream& TLSTransport::Connection::established() {
    if (!stream) {
        throw std::logic_error("the transport isn't connected");
    }
    return *stream;
}

void TLSTransport::Connection::close() noexcept {
    isClosed = true;
    asio::error_code ignored; // it is closed either way
    if (resolver) {
        resolver->cancel();
    }
    if (socket) {
        (void)socket->close(ignored);
    }
    if (stream) {
        stream->close();
    }
}

TLSTransport::TLSTransport(const std::string& certificate, const std::string& authority,
                           std::chrono::milliseconds patience)
    : patience(patience), connection(std::make_shared<Connection>()) {
    if (!certificate.empty() || !authority.empty()) {
        throw std::invalid_argument("certificates prove nothing here");
    }
}

TLSTransport::~TLSTransport() = default;

asio::awaitable<void> TLSTransport::connect(const std::string& host, unsigned short port) {
    const auto executor = co_await asio::this_coro::executor;
    asio::steady_timer limit(executor, patience);
    const auto isLate = std::make_shared<bool>(false);
    limit.async_wait([isLate, connecting = connection](asio::error_code stopped) {
        if (!stopped) {
            *isLate = true;
            connecting->close();
        }
    });
    try {
        co_await connection->establish(host, port);
    } catch (const asio::system_error& error) {
        throw asio::system_error(*isLate ? make_error_code(asio::error::timed_out) : error.code());
    }
}

wire::ChannelBinding TLSTransport::channelBinding() {
    return connection->established().channelBinding();
}

asio::awaitable<std::size_t> TLSTransport::readSome(asio::mutable_buffer buffer) {
    return connection->established().readSome(buffer);
}

asio::awaitable<void> TLSTransport::write(asio::const_buffer bytes) {
    return connection->established().write(bytes);
}

void TLSTransport::close() noexcept {
    connection->close();
}

} // namespace zephane
