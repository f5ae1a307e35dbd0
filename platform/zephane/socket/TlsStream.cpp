#include "zephane/socket/TlsStream.h"

#include "zephane/socket/SelfSignedCertificate.h"
#include "zephane/wire/Limits.h"

#include <asio/redirect_error.hpp>
#include <asio/use_awaitable.hpp>
#include <asio/write.hpp>
#include <cerrno>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdexcept>
#include <string_view>
#include <sys/socket.h>
#include <utility>

namespace zephane {

namespace {

constexpr std::string_view bindingLabel = "EXPORTER-Channel-Binding";

asio::ssl::context contextOf(asio::ssl::context::method side) {
    asio::ssl::context context(side);
    SSL_CTX* const native = context.native_handle();
    // Early data is off by default.
    if (SSL_CTX_set_min_proto_version(native, TLS1_3_VERSION) != 1 ||
        SSL_CTX_set_num_tickets(native, 0) != 1) {
        throw std::runtime_error("OpenSSL can't do TLS 1.3");
    }
    SSL_CTX_set_options(native, SSL_OP_NO_TICKET);
    SSL_CTX_set_session_cache_mode(native, SSL_SESS_CACHE_OFF);
    context.set_verify_mode(asio::ssl::verify_none);
    return context;
}

/// asio accepts connections without close-on-exec, so programs started later would keep them open.
void closeOnExec(int socket) {
    if (::fcntl(socket, F_SETFD, FD_CLOEXEC) != 0) {
        throw asio::system_error(errno, asio::error::get_system_category(), "fcntl");
    }
}

void setOption(int socket, int level, int name, int value) {
    if (::setsockopt(socket, level, name, &value, sizeof value) != 0) {
        throw asio::system_error(errno, asio::error::get_system_category(), "setsockopt");
    }
}

/// Has the kernel detect a peer that has vanished, even when nothing is being sent.
void enableKeepalive(int socket) {
    constexpr int idleSeconds = 20;
    constexpr int probeSeconds = 10;
    const auto patience = std::chrono::milliseconds(wire::answerTime).count();
    setOption(socket, SOL_SOCKET, SO_KEEPALIVE, 1);
    setOption(socket, IPPROTO_TCP, TCP_KEEPIDLE, idleSeconds);
    setOption(socket, IPPROTO_TCP, TCP_KEEPINTVL, probeSeconds);
    setOption(socket, IPPROTO_TCP, TCP_USER_TIMEOUT, static_cast<int>(patience));
}

} // namespace

asio::ssl::context clientContext() {
    return contextOf(asio::ssl::context::tls_client);
}

asio::ssl::context serverContext() {
    asio::ssl::context context = contextOf(asio::ssl::context::tls_server);
    useSelfSignedCertificate(*context.native_handle());
    return context;
}

TlsStream::TlsStream(asio::ip::tcp::socket socket, asio::ssl::context& context)
    : stream(std::move(socket), context) {
    stream.lowest_layer().set_option(asio::ip::tcp::no_delay(true));
    closeOnExec(stream.lowest_layer().native_handle());
    enableKeepalive(stream.lowest_layer().native_handle());
}

asio::awaitable<void> TlsStream::handshake(asio::ssl::stream_base::handshake_type side) {
    co_await stream.async_handshake(side, asio::use_awaitable);
}

wire::ChannelBinding TlsStream::channelBinding() {
    wire::ChannelBinding binding{};
    if (SSL_export_keying_material(stream.native_handle(), binding.data(), binding.size(),
                                   bindingLabel.data(), bindingLabel.size(), nullptr, 0, 0) != 1) {
        throw std::runtime_error("OpenSSL can't tell what binds the channel");
    }
    return binding;
}

asio::awaitable<std::size_t> TlsStream::readSome(asio::mutable_buffer buffer) {
    asio::error_code error;
    const std::size_t count =
        co_await stream.async_read_some(buffer, asio::redirect_error(asio::use_awaitable, error));
    if (error && error != asio::error::eof) {
        throw asio::system_error(error);
    }
    co_return error ? 0 : count;
}

asio::awaitable<void> TlsStream::write(asio::const_buffer bytes) {
    co_await asio::async_write(stream, bytes, asio::use_awaitable);
}

void TlsStream::close() noexcept {
    asio::error_code ignored; // it is closed either way
    (void)stream.lowest_layer().close(ignored);
}

} // namespace zephane
