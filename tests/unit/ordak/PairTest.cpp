#include "ordak/Pair.h"

#include "common/Exceptions.h"
#include "support/BodyMutation.h"
#include "support/Messages.h"
#include "support/RecordingLogger.h"
#include "support/TestDatabase.h"

#include <gtest/gtest.h>

#include <thread>
#include <tuple>
#include <vector>

namespace agent::ordak {
namespace {

using test::messageOf;

class PairTest : public testing::Test {
protected:
    using Stored = std::tuple<bool, std::int32_t, std::string, std::string>;

    Stored stored() {
        std::int32_t id = 0;
        std::string ip;
        std::string agentUUID;
        const bool found = database.provider.getDevice(id, ip, agentUUID);
        return {found, id, ip, agentUUID};
    }

    static APIExtendedData from(int deviceId, const std::string& ip = "10.0.0.1") {
        APIExtendedData request;
        request.deviceId = deviceId;
        request.ip = ip;
        return request;
    }

    /// Expects that the request is refused, and expects this line in the log.
    void expectRefused(const std::string& body, int deviceId, const std::string& line) {
        record.clear();
        EXPECT_EQ(messageOf<exception::bad_request>([&] { pair(body, from(deviceId)); }), "") << body;
        EXPECT_EQ(record.lines(), (std::vector<test::RecordingLogger::Line>{{1, line}})) << body;
    }

    test::RecordingLogger record;
    test::TestDatabase database;
    OrdakPairDelegate delegate{database.provider};
    FeatureManager features;
    Pair pair{record.logger, delegate, features};
};

TEST_F(PairTest, AnnouncesItsFeature) {
    EXPECT_EQ(features.getFeatures().at("secure_pairing"), (Feature{"secure_pairing", "1.0", "1.0"}));
}

TEST_F(PairTest, StoresTheDeviceOfTheCertificate) {
    const APIResponse response = pair(R"({"deviceID": 12})", from(12));
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.contentType, APIResponse::ContentType::json);
    EXPECT_EQ(response.text, "");
    EXPECT_EQ(stored(), Stored(true, 12, "10.0.0.1", ""));
    EXPECT_TRUE(record.has(3, "Pair request from deviceID 12 accepted"));
    EXPECT_TRUE(delegate.isPaired());
    EXPECT_EQ(delegate.getDeviceId(), 12);
}

TEST_F(PairTest, AnyAcceptedPairingReplacesTheEarlierOne) {
    pair(R"({"deviceID": 12})", from(12));
    pair(R"({"deviceID": 13})", from(13, "10.0.0.2"));
    EXPECT_EQ(stored(), Stored(true, 13, "10.0.0.2", ""));
    EXPECT_FALSE(delegate.isAuthorized(12, "10.0.0.1"));
    EXPECT_TRUE(delegate.isAuthorized(13, "10.0.0.2"));
}

TEST_F(PairTest, BodiesThatAreNoRequest) {
    for (const std::string body :
         {"", "{", "[]", "7", "{}", R"({"deviceID": "12"})", R"({"deviceID": null})", R"({"deviceID": true})",
          R"({"deviceID": 4294967308})", R"({"deviceID": 1e300})", R"({"deviceid": 12})"}) {
        expectRefused(body, 12, "Pair request from deviceID 0 rejected (invalid JSON)");
    }
    EXPECT_EQ(stored(), Stored(false, 0, "", ""));
}

TEST_F(PairTest, DeviceIdsThatAreNone) {
    expectRefused(R"({"deviceID": 0})", 12, "Pair request from deviceID 0 rejected (invalid device ID)");
    expectRefused(R"({"deviceID": 0})", 0, "Pair request from deviceID 0 rejected (invalid device ID)");
    expectRefused(R"({"deviceID": -1})", -1, "Pair request from deviceID -1 rejected (invalid device ID)");
}

TEST_F(PairTest, DeviceOfAnotherCertificateKeepsTheEarlierPairing) {
    pair(R"({"deviceID": 12})", from(12));
    expectRefused(R"({"deviceID": 12})", 13, "Pair request from deviceID 12 rejected (device ID mismatch)");
    EXPECT_EQ(stored(), Stored(true, 12, "10.0.0.1", ""));
}

TEST_F(PairTest, StoreThatFailsKeepsTheEarlierPairing) {
    pair(R"({"deviceID": 12})", from(12));
    database.destroy();
    EXPECT_THROW(pair(R"({"deviceID": 13})", from(13)), std::runtime_error);
    EXPECT_EQ(delegate.getDeviceId(), 12);
}

TEST_F(PairTest, SurvivesHostileBodies) {
    EXPECT_GT(test::countAnswersToMutations(R"({"deviceID": 12})",
                                            [&](const std::string& body) { pair(body, from(12)); }),
              0);
    EXPECT_EQ(stored(), Stored(true, 12, "10.0.0.1", ""));
}

using OrdakPairDelegateTest = PairTest;

TEST_F(OrdakPairDelegateTest, UnpairedIsRememberedUntilPaired) {
    EXPECT_FALSE(delegate.isAuthorized(12, "10.0.0.1"));
    EXPECT_FALSE(delegate.isAuthorized(-1, "10.0.0.1"));
    EXPECT_FALSE(delegate.isAuthorized(0, ""));
    EXPECT_EQ(delegate.getDeviceId(), -1);
    database.provider.setDevice(12, "10.0.0.1", ""); // written directly, so the delegate doesn't notice
    EXPECT_FALSE(delegate.isPaired());
    delegate.pair(12, "10.0.0.1");
    EXPECT_TRUE(delegate.isPaired());
    EXPECT_TRUE(delegate.isAuthorized(12, "10.0.0.1"));
}

TEST_F(OrdakPairDelegateTest, PairingIsLoadedFromTheStore) {
    database.provider.setDevice(12, "10.0.0.1", "third");
    EXPECT_TRUE(delegate.isPaired());
    EXPECT_EQ(delegate.getDeviceId(), 12);
    EXPECT_TRUE(delegate.isAuthorized(12, "10.0.0.1"));
    EXPECT_FALSE(delegate.isAuthorized(13, "10.0.0.1"));
    EXPECT_FALSE(delegate.isAuthorized(-12, "10.0.0.1"));
}

TEST_F(OrdakPairDelegateTest, AskingForThePairedDeviceStoresNothing) {
    EXPECT_FALSE(delegate.isPairedWith(-1)); // stands for no device
    EXPECT_FALSE(delegate.isPairedWith(0));
    delegate.pair(12, "10.0.0.1");
    EXPECT_TRUE(delegate.isPairedWith(12));
    EXPECT_FALSE(delegate.isPairedWith(13));
    EXPECT_EQ(stored(), Stored(true, 12, "10.0.0.1", ""));
}

TEST_F(OrdakPairDelegateTest, NewAddressIsServedAndStored) {
    database.provider.setDevice(12, "10.0.0.1", "third");
    EXPECT_FALSE(delegate.isAuthorized(13, "10.0.0.9"));
    EXPECT_EQ(stored(), Stored(true, 12, "10.0.0.1", "third"));
    EXPECT_TRUE(delegate.isAuthorized(12, "10.0.0.2"));
    EXPECT_EQ(stored(), Stored(true, 12, "10.0.0.2", "third"));
}

TEST_F(OrdakPairDelegateTest, KnownAddressNeedsNoStore) {
    database.provider.setDevice(12, "10.0.0.1", "");
    EXPECT_TRUE(delegate.isPaired());
    database.destroy();
    EXPECT_TRUE(delegate.isAuthorized(12, "10.0.0.1"));
    EXPECT_THROW((void)delegate.isAuthorized(12, "10.0.0.2"), std::runtime_error);
}

TEST_F(OrdakPairDelegateTest, StoreThatCannotBeReadIsAskedAgain) {
    test::TestDatabase broken;
    broken.destroy();
    OrdakPairDelegate other(broken.provider);
    EXPECT_THROW((void)other.isPaired(), std::runtime_error);
    EXPECT_THROW((void)other.getDeviceId(), std::runtime_error);
}

TEST_F(OrdakPairDelegateTest, ConnectionsMayOverlapAPairing) {
    delegate.pair(1, "10.0.0.1");
    std::vector<std::thread> connections;
    for (int id = 1; id <= 2; ++id) {
        connections.emplace_back([this, id] {
            for (int i = 0; i < 20; ++i) {
                (void)delegate.isAuthorized(id, "10.0.0." + std::to_string(i));
            }
        });
    }
    connections.emplace_back([this] { delegate.pair(2, "10.0.0.1"); });
    for (std::thread& connection : connections) {
        connection.join();
    }
    EXPECT_EQ(delegate.getDeviceId(), 2);
    EXPECT_EQ(std::get<1>(stored()), 2);
}

} // namespace
} // namespace agent::ordak
