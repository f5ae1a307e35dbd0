#include "Handshake.h"

#include "TcpConnection.h"

#include <chrono>
#include <gnutls/gnutls.h>
#include <memory>
#include <poll.h>
#include <stdexcept>
#include <type_traits>

namespace bekctl {

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds handshakeTimeout(3000);

struct EndSession {
    void operator()(gnutls_session_t session) const noexcept { gnutls_deinit(session); }
};
struct FreeCredentials {
    void operator()(gnutls_certificate_credentials_t owned) const noexcept {
        gnutls_certificate_free_credentials(owned);
    }
};
using Session = std::unique_ptr<std::remove_pointer_t<gnutls_session_t>, EndSession>;
using Credentials = std::unique_ptr<std::remove_pointer_t<gnutls_certificate_credentials_t>, FreeCredentials>;

void require(int code) {
    if (code < 0) {
        throw std::runtime_error(gnutls_strerror(code));
    }
}

Credentials makeCredentials() {
    gnutls_certificate_credentials_t made = nullptr;
    require(gnutls_certificate_allocate_credentials(&made));
    return Credentials(made);
}

Session makeSession(gnutls_certificate_credentials_t credentials, int socket) {
    gnutls_session_t made = nullptr;
    require(gnutls_init(&made, GNUTLS_CLIENT | GNUTLS_NONBLOCK));
    Session session(made);
    require(gnutls_set_default_priority(made));
    require(gnutls_credentials_set(made, GNUTLS_CRD_CERTIFICATE, credentials));
    gnutls_transport_set_int(made, socket);
    return session;
}

void waitFor(gnutls_session_t session, int socket, Clock::time_point end) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
    const short direction = gnutls_record_get_direction(session) == 0 ? POLLIN : POLLOUT;
    pollfd waiting{socket, direction, 0};
    if (left.count() <= 0 || ::poll(&waiting, 1, static_cast<int>(left.count())) <= 0) {
        throw std::runtime_error("no answer within 3 seconds");
    }
}

void shakeHands(gnutls_session_t session, int socket) {
    const Clock::time_point end = Clock::now() + handshakeTimeout;
    int code = 0;
    while ((code = gnutls_handshake(session)) < 0) {
        if (gnutls_error_is_fatal(code) != 0) {
            require(code);
        }
        if (code == GNUTLS_E_AGAIN || code == GNUTLS_E_INTERRUPTED) {
            waitFor(session, socket, end);
        }
        if (Clock::now() > end) {
            throw std::runtime_error("no end of the handshake within 3 seconds");
        }
    }
}

} // namespace

std::string certificateShownAt(unsigned short port) {
    const os::FileDescriptor socket = connectTo("127.0.0.1", port, handshakeTimeout);
    const Credentials credentials = makeCredentials();
    const Session session = makeSession(credentials.get(), socket.get());
    shakeHands(session.get(), socket.get());
    unsigned count = 0;
    const gnutls_datum_t* const shown = gnutls_certificate_get_peers(session.get(), &count);
    if (shown == nullptr || count == 0) {
        throw std::runtime_error("no certificate is shown");
    }
    std::string bytes(static_cast<const char*>(static_cast<const void*>(shown->data)), shown->size);
    gnutls_bye(session.get(), GNUTLS_SHUT_WR);
    return bytes;
}

} // namespace bekctl
