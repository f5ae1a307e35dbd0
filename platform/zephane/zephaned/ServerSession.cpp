#include "zephane/zephaned/ServerSession.h"

#include "zephane/socket/Compressor.h"
#include "zephane/socket/Decompressor.h"
#include "zephane/socket/Message.h"
#include "zephane/wire/ProtocolError.h"
#include "zephane/zephaned/EngineConnection.h"
#include "zephane/zephaned/Names.h"

#include <algorithm>
#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/post.hpp>
#include <asio/redirect_error.hpp>
#include <asio/use_awaitable.hpp>
#include <cerrno>
#include <new>
#include <utility>

namespace zephane {

namespace {

/// The time from the hello to the refusal of a client that can't prove itself. It is fixed, so that it
/// reveals nothing, and it slows down guessing.
constexpr std::chrono::seconds refusalTime{1};
/// The time limit from the accepted connection until the engine's size is known; the rest of the handshake's
/// time is left for the verdict.
constexpr std::chrono::seconds engineTime = wire::handshakeTime - std::chrono::seconds{2};

constexpr const char* endOfClient = "the client has closed the connection";

std::string peerOf(const asio::ip::tcp::socket& socket) {
    asio::error_code gone;
    const asio::ip::tcp::endpoint peer = socket.remote_endpoint(gone);
    return gone ? "a client that has gone" : describe(Address{peer.address().to_string(), peer.port()});
}

wire::DigestAnswer digest(NbdImage& image, const wire::DigestRequest& range) {
    try {
        std::vector<std::uint8_t> data(range.length);
        image.read(data, range.offset);
        return {0, wire::digestsOf(data)};
    } catch (const NbdError& error) {
        return {error.error > 0 ? -error.error : -EIO, {}};
    } catch (const std::bad_alloc&) {
        return {-ENOMEM, {}};
    }
}

Filters compression() {
    return {{std::make_shared<Decompressor>()}, {std::make_shared<Compressor>()}};
}

} // namespace

ServerSession::ServerSession(asio::ip::tcp::socket socket, SessionServices& services)
    : services(services),
      strand(socket.get_executor()),
      peer(peerOf(socket)),
      tls(std::move(socket), services.tls),
      remote(tls),
      handshakeLimit(strand) {}

void ServerSession::start() {
    const std::weak_ptr<ServerSession> self = weak_from_this();
    number = services.sessions.add([self](const std::string& why) {
        if (const auto session = self.lock()) {
            session->stop(why);
        }
    });
    limitHandshake();
    asio::co_spawn(strand, [self = shared_from_this()] { return self->run(); }, asio::detached);
}

void ServerSession::stop(const std::string& why) {
    asio::post(strand, [self = shared_from_this(), why] { self->close(why); });
}

void ServerSession::close(const std::string& why) {
    if (endReason.empty()) {
        endReason = why;
    }
    if (relay) {
        relay->stop();
    } else {
        remote.close();
    }
}

void ServerSession::limitHandshake() {
    handshakeLimit.expires_at(accepted + wire::handshakeTime);
    handshakeLimit.async_wait([self = weak_from_this()](const asio::error_code& cancelled) {
        const auto session = self.lock();
        if (!cancelled && session && !session->isAdmitted) {
            session->close("the handshake has taken too long");
        }
    });
}

asio::awaitable<void> ServerSession::run() {
    try {
        co_await converse();
    } catch (const asio::system_error& error) {
        // A client may close the connection without TLS's close_notify.
        const bool isEnd = error.code() == asio::ssl::error::stream_truncated;
        close(isEnd ? endOfClient : error.code().message());
    } catch (const std::exception& error) {
        close(error.what());
    }
    finish();
}

void ServerSession::finish() {
    close(lease && lease->engine().hasEnded() ? "the image's engine has ended" : endOfClient);
    handshakeLimit.cancel();
    if (!isDigesting) {
        digestImage.reset(); // the engine waits for this connection when it ends
    }
    lease.reset();
    services.sessions.remove(number);
    if (isProven) {
        sayEnd();
    } else {
        sayRefusal();
    }
}

asio::awaitable<void> ServerSession::converse() {
    std::optional<Refusal> refusal;
    try {
        co_await admit();
    } catch (const Refusal& caught) {
        refusal.emplace(caught);
    }
    if (refusal) {
        co_await refuse(*refusal);
    } else {
        co_await relay->run();
    }
}

asio::awaitable<void> ServerSession::admit() {
    co_await tls.handshake(asio::ssl::stream_base::server);
    wire::ServerHandshake handshake(tls.channelBinding());
    co_await prove(handshake);
    const wire::ClientHello& asked = handshake.asked();
    isProven = services.sessions.prove(number, asked.image);
    if (!isProven) {
        throw Refusal(-EAGAIN, "the server has as many sessions as it may have");
    }
    Local local = co_await openImage(asked);
    granted = grantable(asked);
    const wire::Bytes verdict = handshake.grant(granted);
    co_await remote.write(asio::buffer(verdict));
    if (!endReason.empty()) {
        throw asio::system_error(asio::error::operation_aborted);
    }
    serve(std::move(local));
    sayBeginning();
}

asio::awaitable<void> ServerSession::prove(wire::ServerHandshake& handshake) {
    const wire::Bytes hello = co_await readMessage(remote);
    helloTime = Clock::now();
    const wire::Bytes reply = handshake.answer(
        hello, [this](const wire::ImageName& name) { return services.images.findKey(name); });
    image = describe(handshake.asked().image);
    co_await remote.write(asio::buffer(reply));
    const wire::Bytes proof = co_await readMessage(remote);
    if (!handshake.check(proof)) {
        co_await waitUntil(helloTime + refusalTime);
        throw Refusal(-EACCES, "there is no such image, or the secret is wrong");
    }
}

asio::awaitable<ServerSession::Local> ServerSession::openImage(const wire::ClientHello& asked) {
    co_await waitForLease(asked);
    Local local = co_await connectTo(lease->engine(), accepted + engineTime);
    co_await openDigestImage();
    const bool isWritable = (asked.flags & wire::writableFlag) != 0;
    if (isWritable && (digestImage->isReadOnly() || digestImage->size() == 0)) {
        services.log.error(image + ": the engine can't write, or its image is empty");
        throw Refusal(-EIO, "the image can't be written to; the server's log says why");
    }
    co_return local;
}

asio::awaitable<void> ServerSession::waitForLease(const wire::ClientHello& asked) {
    const bool isWritable = (asked.flags & wire::writableFlag) != 0;
    while (endReason.empty()) {
        auto opened = services.images.open(asked.image, asked.client, isWritable);
        if (opened) {
            lease.emplace(std::move(*opened));
            co_return;
        }
        if (Clock::now() >= accepted + engineTime) {
            throw Refusal(-EIO, "the engine of those before doesn't end");
        }
        co_await pauseShortly();
    }
    throw asio::system_error(asio::error::operation_aborted);
}

/// Uses an NBD connection of the server's own, because the client's NBD connection is relayed without being
/// parsed.
asio::awaitable<void> ServerSession::openDigestImage() {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(accepted + engineTime - Clock::now());
    const NbdPatience patience{.connecting = std::max(left, std::chrono::milliseconds{1})};
    const auto connect = [path = lease->engine().socket(),
                          patience]() -> asio::awaitable<std::unique_ptr<NbdImage>> {
        co_return std::make_unique<NbdImage>(path, patience);
    };
    try {
        digestImage = co_await asio::co_spawn(services.workers, connect, asio::use_awaitable);
    } catch (const NbdError& error) {
        services.log.error(image + ": the engine shows no image: " + error.what());
        throw Refusal(-EIO, "the image's engine doesn't come up; the server's log says why");
    }
}

std::uint64_t ServerSession::grantable(const wire::ClientHello& asked) const {
    std::uint64_t flags = wire::writableFlag;
    if (services.compression) {
        flags |= wire::compressionFlag;
    }
    if (digestImage->isSharedByConnections()) {
        flags |= wire::compareFlag;
    }
    return asked.flags & flags;
}

asio::awaitable<void> ServerSession::refuse(const Refusal& refusal) {
    const wire::Bytes verdict = wire::ServerHandshake::refuse(refusal.code, refusal.what());
    co_await remote.write(asio::buffer(verdict));
    close(refusal.what());
}

asio::awaitable<void> ServerSession::waitUntil(Clock::time_point time) {
    asio::steady_timer timer(strand, time);
    co_await timer.async_wait(asio::use_awaitable);
}

void ServerSession::serve(Local local) {
    isAdmitted = true;
    if ((granted & wire::compareFlag) == 0) {
        digestImage.reset();
    }
    const bool isCompressed = (granted & wire::compressionFlag) != 0;
    relay.emplace(
        remote, isCompressed ? compression() : Filters(), std::move(local),
        [this](wire::FrameKind kind, std::span<const std::uint8_t> payload) { handleFrame(kind, payload); });
}

void ServerSession::handleFrame(wire::FrameKind kind, std::span<const std::uint8_t> payload) {
    if (kind != wire::FrameKind::digestRequest || !digestImage || isDigesting) {
        throw wire::ProtocolError("the client sends what it may not send now");
    }
    const wire::DigestRequest range = wire::decodeDigestRequest(payload);
    isDigesting = true;
    asio::post(services.workers, [self = shared_from_this(), range] {
        const wire::DigestAnswer digests = digest(*self->digestImage, range);
        asio::post(self->strand, [self, digests] { self->answer(digests); });
    });
}

void ServerSession::answer(const wire::DigestAnswer& digests) {
    isDigesting = false;
    try {
        if (endReason.empty()) {
            relay->send(wire::FrameKind::digestAnswer, wire::encode(digests));
        }
    } catch (const wire::ProtocolError& error) {
        close(error.what());
    }
}

void ServerSession::sayBeginning() {
    services.log.info("session " + std::to_string(number) + ": " + image + " for " + peer +
                      ((granted & wire::writableFlag) != 0 ? ", writable" : ", readable") +
                      ((granted & wire::compressionFlag) != 0 ? ", compressed" : "") +
                      ((granted & wire::compareFlag) != 0 ? ", comparing" : ""));
}

void ServerSession::sayEnd() {
    const std::string who = "session " + std::to_string(number) + ": ";
    if (!isAdmitted) {
        services.log.warning(who + image + " for " + peer + " refused: " + endReason);
        return;
    }
    const auto time = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - accepted);
    services.log.info(who + "ended after " + std::to_string(time.count()) + " ms, " +
                      std::to_string(remote.read()) + " bytes received, " + std::to_string(remote.written()) +
                      " sent: " + endReason);
}

/// Limits the lines, so that unknown clients can't fill the log.
void ServerSession::sayRefusal() {
    const LineLimit::Verdict verdict = services.refusals.ask();
    if (verdict.leftOut > 0) {
        services.log.warning(std::to_string(verdict.leftOut) + " more connections were refused");
    }
    if (verdict.isAllowed) {
        services.log.warning("refused " + peer + (image.empty() ? "" : " for " + image) + ": " + endReason);
    }
}

} // namespace zephane
