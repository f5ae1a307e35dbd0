#pragma once

#include "core/transport/IscsiTransport.h"
#include "support/FakeIscsi.h"
#include "support/RecordingLogger.h"
#include "unit/core/transport/TransportCalls.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace agent::core {

using info::level::debug;
using info::level::error;
using info::level::warning;
using test::FakeIscsi;
using testing::ElementsAre;
using testing::IsEmpty;
using Lines = std::vector<Line>;

inline constexpr std::uint32_t blockBytes = 512;
inline constexpr std::uint64_t blocks = 16;
inline constexpr std::int64_t diskBytes = blockBytes * blocks;

inline const std::string targetName = "iqn.2026-01.example:images";
inline const std::string readCall = "iscsi_read16_task";
inline const std::string writeCall = "iscsi_write16_task";
inline const std::string flushCall = "iscsi_read16_sync";
inline const std::string loginCall = "iscsi_full_connect_sync";
inline const std::string capacityCall = "iscsi_readcapacity16_sync";
inline const std::string destroyed = "iscsi_destroy_context";

inline const Line readFailed{error, "Failed during iscsi read command."};
inline const Line writeFailed{error, "Failed during iscsi write command."};
inline const Line readAgain{error, "Read iscsi failed. Sleeping, reconnecting, and retrying."};
inline const Line writeAgain{error, "Write iscsi failed. Sleeping, reconnecting, and retrying."};
inline const Line gaveUp{error, "Iscsi target connect failed. Aborting."};
inline const Line notCompared{
    warning, "Failed to read a remote target block; the current block will be copied without diff"};
inline const Line wrongPosition{error, "Invalid seek position in remote target"};
inline const Lines connectedLines{{debug, "Iscsi connected:"},
                                  {debug, "FD = 700"},
                                  {debug, "tBlock size: 512"},
                                  {debug, "tBlock count: 16"},
                                  {debug, "Iscsi successfully connected."}};
inline const Calls preparation{"iscsi_create_context " + targetName,
                               "iscsi_set_tcp_user_timeout 60000",
                               "iscsi_set_noautoreconnect 1",
                               "iscsi_set_reconnect_max_retries 0",
                               "iscsi_set_targetname " + targetName,
                               "iscsi_set_session_type 2",
                               "iscsi_set_header_digest 1",
                               "iscsi_set_initiator_username_pwd user secret",
                               "iscsi_set_immediate_data 1",
                               "iscsi_set_initial_r2t 0",
                               "iscsi_set_timeout 60"};
inline const std::string login = loginCall + " 127.0.0.1:3260 3";
inline const Calls capacity{capacityCall + " 3", "scsi_datain_unmarshall"};
inline const Calls farewell{"iscsi_read16_sync 3 0 512 512 0 0 0 0 0", "iscsi_logout_sync",
                            "iscsi_disconnect", destroyed};

/// Concatenates vectors.
template <typename Element>
std::vector<Element> join(const std::vector<std::vector<Element>>& parts) {
    std::vector<Element> all;
    for (const std::vector<Element>& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

/// The recorded form of a command for LUN 3.
inline std::string command(const std::string& function, std::uint64_t block, std::uint64_t bytes,
                           std::uint32_t blockSize = blockBytes) {
    return function + " 3 " + std::to_string(block) + " " + std::to_string(bytes) + " " +
           std::to_string(blockSize) + " 0 0 0 0 0";
}

inline Calls session() {
    return join<std::string>({preparation, {login}, capacity});
}

/// The calls after a failed command: the session is dropped without a logout, and a new one is made.
inline Calls anotherSession() {
    return join<std::string>({{slept, destroyed}, session()});
}

inline Line loginFailed(int attempt) {
    return {error, "Iscsi target connect or Login failed: Try: " + std::to_string(attempt) +
                       " Target name: " + targetName +
                       " Target portal: 127.0.0.1:3260 LUN: 3. Error: " + loginCall + " has failed"};
}

class IscsiTransportTest : public testing::Test {
protected:
    IscsiTransportTest() {
        iscsi.lastBlock = blocks - 1;
        iscsi.disk.resize(diskBytes);
        for (std::size_t at = 0; at < iscsi.disk.size(); ++at) {
            iscsi.disk[at] = static_cast<unsigned char>(at % 251);
        }
    }

    ~IscsiTransportTest() override {
        transport.reset();
        EXPECT_EQ(iscsi.contexts, 0);
        EXPECT_EQ(iscsi.tasks, 0);
        EXPECT_EQ(iscsi.lostCommands, 0);
    }

    void make(std::uint64_t offset) {
        transport.emplace(log.logger, targetName, "127.0.0.1:3260", 3, offset, "user", "secret");
    }

    /// Connects, and forgets the recorded calls and lines.
    void connect(bool diffMerge = false) {
        ASSERT_TRUE(transport->connect(diffMerge));
        forget();
    }

    void forget() {
        log.clear();
        iscsi.calls.clear();
    }

    [[nodiscard]] std::int64_t position() { return transport->seek(0, relative); }

    /// Reads into a buffer of exactly `length` bytes, and keeps them.
    std::int64_t read(std::uint64_t length) {
        received.assign(length, 0);
        received.shrink_to_fit();
        errno = 0;
        return transport->read(received.data(), length);
    }

    std::int64_t write(const Bytes& data) {
        errno = 0;
        return transport->write(data.data(), data.size());
    }

    [[nodiscard]] Bytes onDisk(std::uint64_t offset, std::uint64_t length) const {
        const auto begin = iscsi.disk.begin() + static_cast<std::ptrdiff_t>(offset);
        return {begin, begin + static_cast<std::ptrdiff_t>(length)};
    }

    /// Ends the session and expects no logout, which shows that the session was regarded as broken.
    void expectNoFarewell() {
        forget();
        transport->disconnect();
        EXPECT_THAT(iscsi.calls, ElementsAre(destroyed));
        EXPECT_THAT(log.lines(), IsEmpty());
    }

    void expectFarewell() {
        forget();
        transport->disconnect();
        EXPECT_EQ(iscsi.calls, farewell);
        EXPECT_THAT(log.lines(), IsEmpty());
    }

    FakeIscsi iscsi;
    test::RecordingLogger log;
    std::optional<IscsiTransport> transport{std::in_place, log.logger, targetName, "127.0.0.1:3260", 3, 0,
                                            "user",        "secret"};
    Bytes received;
};

/// Bytes that differ from the disk's.
inline Bytes newBytes(std::size_t length) {
    return Bytes(length, 0xFE);
}

} // namespace agent::core
