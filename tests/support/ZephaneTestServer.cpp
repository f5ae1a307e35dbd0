#include "support/ZephaneTestServer.h"

#include "os/Mutex.h"
#include "zephane/nbd/NbdImage.h"
#include "zephane/socket/Compressor.h"
#include "zephane/socket/Decompressor.h"
#include "zephane/socket/Message.h"
#include "zephane/socket/Relay.h"
#include "zephane/socket/TlsStream.h"
#include "zephane/wire/Handshake.h"

#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/redirect_error.hpp>
#include <asio/use_awaitable.hpp>
#include <asio/write.hpp>
#include <atomic>
#include <cerrno>
#include <thread>
#include <vector>

namespace zephane::test {

namespace {

using asio::ip::tcp;
using asio::local::stream_protocol;

tcp::endpoint anyPort() {
    return {asio::ip::address_v4::loopback(), 0};
}

} // namespace

class ZephaneTestServer::Impl {
public:
    Impl(std::string engineSocket, ServerBehavior behavior)
        : engine(std::move(engineSocket)), behavior(std::move(behavior)), acceptor(io, anyPort()) {
        asio::co_spawn(io, accept(), asio::detached);
        thread = std::thread([this] { io.run(); });
    }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;
    ~Impl() {
        io.stop();
        thread.join();
    }

    std::uint16_t port() { return acceptor.local_endpoint().port(); }
    std::size_t digestRequests() const { return asked; }
    wire::ClientId lastClient() {
        const os::Lock lock(mutex);
        return client;
    }

private:
    /// One connection; lives as long as its coroutine.
    struct Session {
        Session(tcp::socket socket, asio::ssl::context& context) : stream(std::move(socket), context) {}

        TlsStream stream;
        std::unique_ptr<Relay> relay;
    };

    asio::awaitable<void> accept() {
        for (;;) {
            tcp::socket socket = co_await acceptor.async_accept(asio::use_awaitable);
            asio::co_spawn(io, serve(std::make_unique<Session>(std::move(socket), context)), asio::detached);
        }
    }

    asio::awaitable<void> serve(std::unique_ptr<Session> session) {
        co_await session->stream.handshake(asio::ssl::stream_base::server);
        wire::ServerHandshake handshake(session->stream.channelBinding());
        const std::uint64_t granted = co_await admit(session->stream, handshake);
        stream_protocol::socket local(io);
        co_await local.async_connect(stream_protocol::endpoint(engine), asio::use_awaitable);
        Session& used = *session;
        session->relay =
            std::make_unique<Relay>(session->stream, filtersFor(granted), std::move(local),
                                    [this, &used](auto, auto payload) { answer(used, payload); });
        if (behavior.sendsUnrequestedAnswer) {
            session->relay->send(wire::FrameKind::digestAnswer, wire::encode(wire::DigestAnswer{-EIO, {}}));
        }
        co_await session->relay->run();
    }

    /// Returns the granted flags. After a refusal it throws, which ends the session.
    asio::awaitable<std::uint64_t> admit(TlsStream& stream, wire::ServerHandshake& handshake) {
        const wire::Bytes hello = co_await readMessage(stream);
        const wire::Bytes reply = handshake.answer(hello, [this](const wire::ImageName& image) {
            const bool exists = image == wire::ImageName{"image", 7};
            return exists ? std::optional(wire::ProofKey(behavior.secret)) : std::nullopt;
        });
        co_await stream.write(asio::buffer(reply));
        const wire::Bytes proof = co_await readMessage(stream);
        const bool isProven = handshake.check(proof);
        note(handshake.asked());
        const std::uint64_t granted = handshake.asked().flags & behavior.grants;
        const int refusal = isProven ? behavior.refusal : -EACCES;
        const wire::Bytes verdict =
            refusal == 0 ? handshake.grant(granted) : wire::ServerHandshake::refuse(refusal, "not for you");
        co_await stream.write(asio::buffer(verdict));
        if (refusal != 0) {
            throw std::runtime_error("refused");
        }
        co_return granted;
    }

    void note(const wire::ClientHello& hello) {
        const os::Lock lock(mutex);
        client = hello.client;
    }

    static Filters filtersFor(std::uint64_t flags) {
        if ((flags & wire::compressionFlag) == 0) {
            return {};
        }
        return {{std::make_shared<Decompressor>()}, {std::make_shared<Compressor>()}};
    }

    void answer(Session& session, std::span<const std::uint8_t> payload) {
        ++asked;
        const wire::DigestRequest request = wire::decodeDigestRequest(payload);
        if (!behavior.answersDigests) {
            return;
        }
        wire::DigestAnswer reply{behavior.digestCode, {}};
        if (reply.code == 0) {
            std::vector<std::uint8_t> data(request.length);
            NbdImage(engine).read(data, request.offset);
            reply.digests = wire::digestsOf(data);
        }
        if (behavior.dropsLastDigest) {
            reply.digests.pop_back();
        }
        session.relay->send(wire::FrameKind::digestAnswer, wire::encode(reply));
    }

    const std::string engine;
    const ServerBehavior behavior;
    std::atomic<std::size_t> asked{0};
    os::Mutex mutex;
    wire::ClientId client GUARDED_BY(mutex){};
    asio::ssl::context context = serverContext();
    asio::io_context io{1};
    tcp::acceptor acceptor;
    std::thread thread;
};

ZephaneTestServer::ZephaneTestServer(std::string engineSocket, ServerBehavior behavior)
    : impl(std::make_unique<Impl>(std::move(engineSocket), std::move(behavior))) {}

ZephaneTestServer::~ZephaneTestServer() = default;

std::uint16_t ZephaneTestServer::port() const {
    return impl->port();
}

std::size_t ZephaneTestServer::digestRequests() const {
    return impl->digestRequests();
}

wire::ClientId ZephaneTestServer::lastClient() const {
    return impl->lastClient();
}

class ZephaneTestNetwork::Impl {
public:
    Impl(std::uint16_t serverPort, NetworkFault fault)
        : server(asio::ip::address_v4::loopback(), serverPort), fault(fault), acceptor(io, anyPort()) {
        asio::co_spawn(io, accept(), asio::detached);
        thread = std::thread([this] { io.run(); });
    }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;
    ~Impl() {
        io.stop();
        thread.join();
    }

    std::uint16_t port() { return acceptor.local_endpoint().port(); }
    bool hasFailed() const { return failed; }

private:
    struct Link {
        explicit Link(asio::io_context& io) : client(io), server(io) {}

        tcp::socket client;
        tcp::socket server;
    };

    asio::awaitable<void> accept() {
        for (;;) {
            auto link = std::make_shared<Link>(io);
            co_await acceptor.async_accept(link->client, asio::use_awaitable);
            co_await link->server.async_connect(server, asio::use_awaitable);
            asio::co_spawn(io, carry(link, false), asio::detached);
            asio::co_spawn(io, carry(link, true), asio::detached);
        }
    }

    // Copies one direction of a connection. At the fault it either closes both sockets or keeps them open and
    // copies no more.
    asio::awaitable<void> carry(std::shared_ptr<Link> link, bool isToClient) {
        tcp::socket& from = isToClient ? link->server : link->client;
        tcp::socket& to = isToClient ? link->client : link->server;
        std::size_t left = isToClient == fault.isToClient ? fault.afterBytes : ~std::size_t{0};
        std::vector<char> buffer(65536);
        asio::error_code ended;
        while (left > 0) {
            const std::size_t count = co_await from.async_read_some(
                asio::buffer(buffer, left), asio::redirect_error(asio::use_awaitable, ended));
            if (ended) {
                break;
            }
            co_await asio::async_write(to, asio::buffer(buffer, count), asio::use_awaitable);
            left -= count;
        }
        failed = failed || left == 0;
        if (left > 0 || !fault.isSilent) {
            link->client.close();
            link->server.close();
        } else {
            held.push_back(std::move(link));
        }
    }

    const tcp::endpoint server;
    const NetworkFault fault;
    std::atomic<bool> failed{false};
    asio::io_context io{1};
    std::vector<std::shared_ptr<Link>> held; ///< connections kept open after a silent fault
    tcp::acceptor acceptor;
    std::thread thread;
};

ZephaneTestNetwork::ZephaneTestNetwork(std::uint16_t serverPort, NetworkFault fault)
    : impl(std::make_unique<Impl>(serverPort, fault)) {}

ZephaneTestNetwork::~ZephaneTestNetwork() = default;

std::uint16_t ZephaneTestNetwork::port() const {
    return impl->port();
}

bool ZephaneTestNetwork::hasFailed() const {
    return impl->hasFailed();
}

} // namespace zephane::test
