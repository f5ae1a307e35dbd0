#include "zephane/socket/TlsStream.h"

#include "zephane/socket/Message.h"
#include "zephane/socket/TLSTransport.h"
#include "zephane/wire/ProtocolError.h"

#include <gtest/gtest.h>

#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/io_context.hpp>
#include <asio/use_awaitable.hpp>
#include <asio/use_future.hpp>
#include <chrono>
#include <fcntl.h>
#include <functional>
#include <optional>

namespace zephane {
namespace {

using asio::ip::tcp;
using namespace std::chrono_literals;

const std::string here = "127.0.0.1";

/// A client transport connected to a server stream, both in one thread.
class TlsStreamTest : public testing::Test {
protected:
    TlsStreamTest() {
        auto accepted = asio::co_spawn(io, accept(), asio::use_future);
        auto connected =
            asio::co_spawn(io, client.connect(here, acceptor.local_endpoint().port()), asio::use_future);
        io.run();
        io.restart();
        accepted.get();
        connected.get();
    }

    template <typename Result>
    Result await(asio::awaitable<Result> work) {
        auto result = asio::co_spawn(io, std::move(work), asio::use_future);
        io.restart();
        io.run_for(30s);
        return result.get();
    }

    void send(const std::string& text) { await(server->write(asio::buffer(text))); }

    asio::ssl::context context = serverContext();
    asio::io_context io;
    tcp::acceptor acceptor{io, {asio::ip::address_v4::loopback(), 0}};
    std::optional<TlsStream> server;
    int serverDescriptor = -1;
    TLSTransport client{"", ""};

private:
    asio::awaitable<void> accept() {
        tcp::socket socket = co_await acceptor.async_accept(asio::use_awaitable);
        serverDescriptor = socket.native_handle();
        server.emplace(std::move(socket), context);
        co_await server->handshake(asio::ssl::stream_base::server);
    }
};

TEST_F(TlsStreamTest, BothEndsKnowTheSameOfTheirConnection) {
    EXPECT_EQ(server->channelBinding(), client.channelBinding());
    EXPECT_NE(server->channelBinding(), wire::ChannelBinding{});
}

TEST_F(TlsStreamTest, CarriesBytesBothWays) {
    send("to the client");
    std::string text(100, '\0');
    EXPECT_EQ(await(client.readSome(asio::buffer(text))), 13);
    EXPECT_EQ(text.substr(0, 13), "to the client");
    await(client.write(asio::buffer("back", 4)));
    EXPECT_EQ(await(server->readSome(asio::buffer(text))), 4);
    EXPECT_EQ(text.substr(0, 4), "back");
}

TEST_F(TlsStreamTest, AConnectionThatIsCutIsNoOrderlyEnd) {
    server->close();
    std::string text(100, '\0');
    EXPECT_THROW(await(client.readSome(asio::buffer(text))), asio::system_error);
}

/// Closing must reset the connection, so that the kernel drops unsent data. Otherwise the kernel would go on
/// sending it for another minute, and an abandoned write must not arrive after those of the next connection.
TEST_F(TlsStreamTest, WhatTheClientHasGivenUpIsNotSentAnyMore) {
    await(client.write(asio::buffer("late", 4)));
    client.close();
    std::string text(100, '\0');
    asio::error_code end;
    for (int reads = 0; !end && reads < 2; ++reads) {
        try {
            await(server->readSome(asio::buffer(text)));
        } catch (const asio::system_error& error) {
            end = error.code();
        }
    }
    EXPECT_EQ(end, asio::error::connection_reset);
}

TEST_F(TlsStreamTest, ClosingEndsWhatIsUnderWay) {
    std::string text(100, '\0');
    auto read = asio::co_spawn(io, client.readSome(asio::buffer(text)), asio::use_future);
    io.restart();
    io.run_for(50ms);
    client.close();
    io.restart();
    io.run_for(30s);
    EXPECT_THROW(read.get(), asio::system_error);
    client.close(); // a second close does nothing
}

TEST_F(TlsStreamTest, ItsDescriptorIsNotForProgramsThatAreStarted) {
    EXPECT_NE(::fcntl(serverDescriptor, F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(TlsStreamTest, AMessageIsReadToItsEndAndNotFurther) {
    send(std::string("\0\3abcde", 7));
    EXPECT_EQ(await(readMessage(client)), (wire::Bytes{0, 3, 'a', 'b', 'c'}));
    std::string text(100, '\0');
    EXPECT_EQ(await(client.readSome(asio::buffer(text))), 2);
}

TEST_F(TlsStreamTest, AMessageThatIsTooLongIsRefused) {
    send("\x10");
    send("\x10");
    EXPECT_THROW(await(readMessage(client)), wire::ProtocolError);
}

TEST(TlsStream, OnlyTls13IsSpoken) {
    for (auto& context : {clientContext(), serverContext()}) {
        EXPECT_EQ(SSL_CTX_get_min_proto_version(const_cast<asio::ssl::context&>(context).native_handle()),
                  TLS1_3_VERSION);
    }
}

TEST(TLSTransport, GivesUpAServerThatSaysNothing) {
    asio::io_context io;
    tcp::acceptor silent(io, {asio::ip::address_v4::loopback(), 0});
    TLSTransport transport("", "", 200ms);
    auto result =
        asio::co_spawn(io, transport.connect(here, silent.local_endpoint().port()), asio::use_future);
    io.run_for(30s);
    try {
        result.get();
        ADD_FAILURE() << "connected";
    } catch (const asio::system_error& error) {
        EXPECT_EQ(error.code(), asio::error::timed_out);
    }
}

TEST(TLSTransport, ConnectsToNobodyOnceItIsClosed) {
    asio::io_context io;
    tcp::acceptor silent(io, {asio::ip::address_v4::loopback(), 0});
    TLSTransport transport("", "");
    transport.close();
    auto result =
        asio::co_spawn(io, transport.connect(here, silent.local_endpoint().port()), asio::use_future);
    io.run_for(30s);
    EXPECT_THROW(result.get(), asio::system_error);
}

} // namespace
} // namespace zephane
