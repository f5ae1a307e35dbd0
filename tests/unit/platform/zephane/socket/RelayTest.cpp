#include "zephane/socket/Relay.h"

#include "zephane/socket/Compressor.h"
#include "zephane/socket/Decompressor.h"
#include "zephane/wire/ProtocolError.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <asio/co_spawn.hpp>
#include <asio/io_context.hpp>
#include <asio/local/connect_pair.hpp>
#include <asio/read.hpp>
#include <asio/redirect_error.hpp>
#include <asio/use_awaitable.hpp>
#include <asio/use_future.hpp>
#include <asio/write.hpp>
#include <chrono>
#include <future>
#include <numeric>
#include <thread>

namespace zephane {
namespace {

using asio::local::stream_protocol;
using Bytes = std::vector<std::uint8_t>;
using Frames = std::vector<std::pair<wire::FrameKind, Bytes>>;
using testing::ElementsAre;
using testing::Pair;
using wire::FrameKind;
using namespace std::chrono_literals;

/// A connection without TLS.
class PlainStream : public ByteStream {
public:
    explicit PlainStream(asio::io_context& io) : socket(io) {}

    asio::awaitable<std::size_t> readSome(asio::mutable_buffer buffer) override {
        asio::error_code error;
        const std::size_t count =
            co_await socket.async_read_some(buffer, asio::redirect_error(asio::use_awaitable, error));
        if (error && error != asio::error::eof) {
            throw asio::system_error(error);
        }
        co_return count;
    }
    asio::awaitable<void> write(asio::const_buffer bytes) override {
        co_await asio::async_write(socket, bytes, asio::use_awaitable);
    }
    void close() noexcept override {
        asio::error_code ignored;
        (void)socket.close(ignored);
    }

    stream_protocol::socket socket;
};

/// A relay with both of its connections.
class End {
public:
    End(asio::io_context& io, Filters filters, std::chrono::milliseconds patience, Relay::Handler handler)
        : remote(io),
          user(userIo),
          relay(remote, std::move(filters), makeLocal(io), std::move(handler), patience) {}

    asio::io_context userIo; ///< the user's socket is blocking
    PlainStream remote;
    stream_protocol::socket user;
    Relay relay;
    std::future<void> ended;

private:
    stream_protocol::socket makeLocal(asio::io_context& io) {
        stream_protocol::socket local(io);
        asio::local::connect_pair(local, user);
        return local;
    }
};

Filters compressing() {
    return {{std::make_shared<Decompressor>()}, {std::make_shared<Compressor>()}};
}

Bytes counting(std::size_t length) {
    Bytes bytes(length);
    std::iota(bytes.begin(), bytes.end(), std::uint8_t{0});
    return bytes;
}

/// Two connected relays that run in a thread of their own.
class RelayPair {
public:
    explicit RelayPair(bool compresses, std::chrono::milliseconds patience = 60s)
        : client(io, compresses ? compressing() : Filters(), patience,
                 [this](auto kind, auto payload) { take(kind, payload); }),
          server(io, compresses ? compressing() : Filters(), patience,
                 [this](auto kind, auto payload) { answer(kind, payload); }) {
        asio::local::connect_pair(client.remote.socket, server.remote.socket);
        for (End* const end : {&client, &server}) {
            end->ended = asio::co_spawn(io, end->relay.run(), asio::use_future);
        }
        thread = std::thread([this] { io.run(); });
    }
    RelayPair(const RelayPair&) = delete;
    RelayPair& operator=(const RelayPair&) = delete;
    ~RelayPair() {
        asio::post(io, [this] {
            client.relay.stop();
            server.relay.stop();
        });
        thread.join();
    }

    /// The answers that the client gets to a request.
    Frames ask(const Bytes& request) {
        asio::post(io, [this, request] { client.relay.send(FrameKind::digestRequest, request); });
        return answers.get_future().get();
    }

    asio::io_context io{1};
    End client;
    End server;

private:
    void answer(FrameKind kind, std::span<const std::uint8_t> payload) {
        requests.emplace_back(kind, Bytes(payload.begin(), payload.end()));
        server.relay.send(FrameKind::digestAnswer, Bytes(36, 7));
    }
    void take(FrameKind kind, std::span<const std::uint8_t> payload) {
        requests.emplace_back(kind, Bytes(payload.begin(), payload.end()));
        answers.set_value(requests);
    }

    Frames requests;
    std::promise<Frames> answers;
    std::thread thread;
};

void sendAll(End& end, const Bytes& data) {
    asio::write(end.user, asio::buffer(data));
}

Bytes receive(End& end, std::size_t length) {
    Bytes data(length);
    asio::read(end.user, asio::buffer(data));
    return data;
}

/// Whether the user of a relay sees the end of its connection.
bool seesTheEnd(End& end) {
    Bytes data(1);
    asio::error_code error;
    asio::read(end.user, asio::buffer(data), error);
    return static_cast<bool>(error);
}

class BothKindsOfRelay : public testing::TestWithParam<bool> {};

TEST_P(BothKindsOfRelay, CarriesBytesBothWaysAtOnce) {
    RelayPair pair(GetParam());
    const Bytes data = counting(5 * wire::mebibyte);
    std::thread there([&] { sendAll(pair.client, data); });
    std::thread back([&] { sendAll(pair.server, data); });
    std::thread reader([&] { EXPECT_TRUE(receive(pair.server, data.size()) == data); });
    EXPECT_TRUE(receive(pair.client, data.size()) == data);
    there.join();
    back.join();
    reader.join();
}

TEST_P(BothKindsOfRelay, CarriesAByteWithoutWaitingForMore) {
    RelayPair pair(GetParam());
    for (std::uint8_t byte = 0; byte < 10; ++byte) {
        sendAll(pair.client, {byte});
        EXPECT_THAT(receive(pair.server, 1), ElementsAre(byte));
    }
}

TEST_P(BothKindsOfRelay, CarriesOtherFramesBetween) {
    RelayPair pair(GetParam());
    const Bytes data = counting(3 * wire::mebibyte);
    std::thread there([&] { sendAll(pair.client, data); });
    std::thread reader([&] { EXPECT_TRUE(receive(pair.server, data.size()) == data); });
    EXPECT_THAT(pair.ask(Bytes(12, 3)), ElementsAre(Pair(FrameKind::digestRequest, Bytes(12, 3)),
                                                    Pair(FrameKind::digestAnswer, Bytes(36, 7))));
    there.join();
    reader.join();
}

TEST_P(BothKindsOfRelay, EndsBothSidesWhenOneEnds) {
    RelayPair pair(GetParam());
    sendAll(pair.client, {1, 2, 3});
    pair.client.user.close();
    EXPECT_THAT(receive(pair.server, 3), ElementsAre(1, 2, 3)); // data sent before the close still arrives
    EXPECT_TRUE(seesTheEnd(pair.server));
    EXPECT_NO_THROW(pair.client.ended.get());
    EXPECT_NO_THROW(pair.server.ended.get());
}

INSTANTIATE_TEST_SUITE_P(Compression, BothKindsOfRelay, testing::Bool());

TEST(Relay, CanBeStoppedFromOutside) {
    RelayPair pair(false);
    asio::post(pair.io, [&] { pair.client.relay.stop(); });
    EXPECT_NO_THROW(pair.client.ended.get());
    EXPECT_TRUE(seesTheEnd(pair.client));
    EXPECT_TRUE(seesTheEnd(pair.server));
}

std::error_code codeOf(std::future<void>& ended) {
    try {
        ended.get();
        return {};
    } catch (const asio::system_error& error) {
        return error.code();
    }
}

TEST(Relay, AUserWhoTakesNothingEndsIt) {
    RelayPair pair(false, 300ms);
    std::thread sender([&] {
        asio::error_code ended;
        asio::write(pair.client.user, asio::buffer(Bytes(8 * wire::mebibyte)), ended);
        EXPECT_TRUE(ended); // buffering is bounded, so not everything was accepted
    });
    EXPECT_EQ(codeOf(pair.server.ended), asio::error::timed_out);
    sender.join();
}

/// One relay whose remote end is played by the test.
class LoneRelay {
public:
    explicit LoneRelay(Filters filters, std::chrono::milliseconds patience = 60s)
        : end(io, std::move(filters), patience, [](auto, auto) { throw wire::ProtocolError("not for me"); }),
          peer(peerIo) {
        asio::local::connect_pair(end.remote.socket, peer);
        end.ended = asio::co_spawn(io, end.relay.run(), asio::use_future);
    }

    /// Runs the relay until it ends.
    std::future<void>& result() {
        io.run_for(30s);
        return end.ended;
    }

    asio::io_context io{1};
    asio::io_context peerIo;
    End end;
    stream_protocol::socket peer;
};

TEST(Relay, APeerWhoTakesNothingEndsIt) {
    LoneRelay relay({}, 300ms);
    std::thread sender([&] {
        asio::error_code ended;
        asio::write(relay.end.user, asio::buffer(Bytes(8 * wire::mebibyte)), ended);
        EXPECT_TRUE(ended);
    });
    EXPECT_EQ(codeOf(relay.result()), asio::error::timed_out);
    sender.join();
}

TEST(Relay, ALimitIsOnlyForWhatIsBeingWritten) {
    RelayPair pair(false, 100ms);
    sendAll(pair.client, {1});
    std::this_thread::sleep_for(350ms);
    sendAll(pair.client, {2});
    EXPECT_THAT(receive(pair.server, 2), ElementsAre(1, 2));
}

TEST(Relay, AFrameOfNobodysKindEndsIt) {
    LoneRelay relay({});
    asio::write(relay.peer, asio::buffer(Bytes{9, 0, 0, 1, 0}));
    EXPECT_THROW(relay.result().get(), wire::ProtocolError);
    EXPECT_TRUE(seesTheEnd(relay.end));
}

TEST(Relay, WhatItsUserThrowsEndsIt) {
    LoneRelay relay({});
    asio::write(relay.peer, asio::buffer(Bytes{2, 0, 0, 4, 0xFF, 0xFF, 0xFF, 0xFF}));
    EXPECT_THROW(relay.result().get(), wire::ProtocolError);
}

TEST(Relay, ABrokenStreamEndsIt) {
    LoneRelay relay(compressing());
    asio::write(relay.peer, asio::buffer(Bytes{0, 0, 0, 1, 0}));
    EXPECT_THROW(relay.result().get(), wire::ProtocolError);
}

TEST(Relay, SendsEachBurstAsOneFrame) {
    LoneRelay relay({});
    asio::write(relay.end.user, asio::buffer(Bytes{1, 2, 3}));
    relay.io.run_for(50ms);
    Bytes frame(7);
    asio::read(relay.peer, asio::buffer(frame));
    EXPECT_THAT(frame, ElementsAre(0, 0, 0, 3, 1, 2, 3));
    relay.peer.close();
    EXPECT_NO_THROW(relay.result().get());
}

TEST(Relay, NobodyCanLetFramesPileUp) {
    LoneRelay relay({});
    relay.end.relay.send(FrameKind::digestRequest, Bytes(12));
    EXPECT_THROW(relay.end.relay.send(FrameKind::digestRequest, Bytes(12)), wire::ProtocolError);
    relay.end.relay.stop();
    EXPECT_NO_THROW(relay.result().get());
}

} // namespace
} // namespace zephane
