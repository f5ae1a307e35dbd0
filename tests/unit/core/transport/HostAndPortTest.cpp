#include "core/transport/HostAndPort.h"

#include "support/Messages.h"

#include <gtest/gtest.h>

#include <map>
#include <stdexcept>

namespace agent::core {
namespace {

using test::messageOf;

TEST(HostAndPortTest, AreSplitAtTheColon) {
    const HostAndPort found = splitHostAndPort("10.0.0.1:3260");
    EXPECT_EQ(found.host, "10.0.0.1");
    EXPECT_EQ(found.port, 3260);
}

TEST(HostAndPortTest, PortKeepsItsLowBits) {
    for (const auto& [text, port] : std::map<std::string, int>{
             {"70000", 4464}, {"-1", 65535}, {"0", 0}, {" 21", 21}, {"21x", 21}, {"+21", 21}}) {
        EXPECT_EQ(splitHostAndPort("host:" + text).port, port) << text;
    }
}

TEST(HostAndPortTest, OtherFormsAreRefused) {
    for (const char* address : {"10.0.0.1:3260:1", "10.0.0.1", "", "::"}) {
        EXPECT_EQ(messageOf<std::invalid_argument>([&] { splitHostAndPort(address); }),
                  "Could not interpret target as address:host");
    }
}

TEST(HostAndPortTest, PortsThatAreNoNumber) {
    EXPECT_EQ(messageOf<std::invalid_argument>([] { splitHostAndPort("host:"); }), "stoi");
    EXPECT_EQ(messageOf<std::invalid_argument>([] { splitHostAndPort("host:ftp"); }), "stoi");
    EXPECT_EQ(messageOf<std::out_of_range>([] { splitHostAndPort("host:99999999999"); }), "stoi");
}

} // namespace
} // namespace agent::core
