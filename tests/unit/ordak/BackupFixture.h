#pragma once

#include "common/Exceptions.h"
#include "ordak/Backup.h"
#include "support/EngineHarness.h"
#include "support/FakeIscsi.h"
#include "support/FakeZephane.h"
#include "support/Messages.h"
#include "support/RecordingLogger.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <vector>

namespace agent::ordak {

using nlohmann::json;
using test::messageOf;

inline json volume(const std::string& guid = "uuid-1") {
    return {{"guid", guid},
            {"offset", 4096},
            {"qualifiedName", "iqn.x:y"},
            {"target", "10.0.0.1"},
            {"lun", 3},
            {"username", "user"},
            {"password", "secret"},
            {"scriptsPrePost", json::array()}};
}

inline json request(const std::vector<json>& volumes) {
    return {{"volumes", volumes}};
}

class BackupTest : public testing::Test {
protected:
    APIResponse start(const json& body) { return backup(body.dump()); }

    template <typename Exception = exception::bad_request>
    std::string refusalOf(const json& body) {
        return messageOf<Exception>([&] { start(body); });
    }

    /// The timeout that a script gets for a value of "timeout".
    std::uint32_t timeoutOf(const json& value) {
        json entry = volume();
        entry["scriptsPrePost"] = json::array({{{"scriptname", "a"}, {"timeout", value}}});
        start(request({entry}));
        return harness.backupAttributes->getScripts("uuid-1").at(0).timeout;
    }

    std::uint32_t typeOf(const json& flags) {
        json body = request({volume()});
        body.update(flags);
        start(body);
        return harness.backupAttributes->getBackupType("uuid-1");
    }

    /// The calls to the iSCSI library when the transport of the last backup's volume connects.
    std::vector<std::string> connectionOf(const std::string& uuid) {
        const std::shared_ptr<core::ITransport> transport = harness.takeTransport(uuid);
        iscsi.calls.clear();
        EXPECT_TRUE(transport->connect(false));
        return iscsi.calls;
    }

    [[nodiscard]] bool hasMadeTransports() const {
        return record.hasPart(3, "Backup session added a transport");
    }

    test::RecordingLogger record;
    test::EngineHarness harness{record.logger};
    FeatureManager features;
    test::FakeIscsi iscsi;
    test::FakeZephane zephane;
    Backup backup{record.logger, harness.engine, features};
};

} // namespace agent::ordak
