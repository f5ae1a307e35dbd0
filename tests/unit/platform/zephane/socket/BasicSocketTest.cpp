#include "zephane/socket/BasicSocket.h"

#include "zephane/socket/Compressor.h"
#include "zephane/socket/TLSTransport.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace zephane {
namespace {

TEST(BasicSocket, HasItsTransportAndFilters) {
    auto transport = std::make_unique<TLSTransport>("", "");
    Transport* const given = transport.get();
    BasicSocket socket(std::move(transport));
    EXPECT_EQ(&socket.transport(), given);
    EXPECT_TRUE(socket.filters().reading.empty());
    socket.filters().writing.push_back(std::make_shared<Compressor>());
    EXPECT_EQ(socket.filters().writing.size(), 1);
}

TEST(BasicSocket, NeedsATransport) {
    EXPECT_THROW(BasicSocket(nullptr), std::invalid_argument);
}

TEST(TLSTransport, TakesNoCertificates) {
    EXPECT_THROW(TLSTransport("certificate.pem", ""), std::invalid_argument);
    EXPECT_THROW(TLSTransport("", "authority.pem"), std::invalid_argument);
}

TEST(TLSTransport, IsOfNoUseBeforeItIsConnected) {
    TLSTransport transport("", "");
    EXPECT_THROW((void)transport.channelBinding(), std::logic_error);
    transport.close();
}

} // namespace
} // namespace zephane
