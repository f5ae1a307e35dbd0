#include "Table.h"

#include <gtest/gtest.h>

#include <exception>
#include <string>
#include <system_error>
#include <vector>

namespace tolvubd {
namespace {

constexpr const char* session = "00112233-4455-6677-8899-aabbccddeeff";
constexpr const char* snapshot = "11111111-2222-3333-4444-555555555555";
constexpr const char* otherSnapshot = "66666666-7777-8888-9999-aaaaaaaaaaaa";

Layers fullLayers() {
    return {session, "LVM-x", {{4096, 8192}, {65536, 4096}}, {{1048576, 4096}}, 16, 7, "f0", {1, 2}, 5};
}

Table fullTable() {
    Table table;
    table.session = session;
    table.devices = {
        {255, Mode::snapshot, "/dev/sda1", "/.tolvu", snapshot, 4096, 300, {{0, 4096}, {12288, 8192}}},
        {0, Mode::tracking, "/dev/disk/by-uuid/x", "/.tolvu1", otherSnapshot, 1, 0, {}, fullLayers()}};
    table.asleep = {{0, Mode::tracking, "/dev/sdb1", "/.tolvu", snapshot, 4096, 0, {{4096, 1}}}};
    table.unfinished = {{snapshot, "/mnt/a b/.tolvu", "/mnt/a b", {}},
                        {otherSnapshot, "/.tolvu", {}, ProcessName{4711, ~std::uint64_t{0}}}};
    return table;
}

bool isRefused(const std::string& text) {
    try {
        readTable(text);
    } catch (const std::exception&) {
        return true;
    }
    return false;
}

std::string withReplaced(const std::string& from, const std::string& to) {
    std::string text = writeTable(fullTable());
    const auto at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return text.replace(at, from.size(), to);
}

TEST(Table, IsReadAsItWasWritten) {
    EXPECT_EQ(readTable(writeTable(fullTable())), fullTable());
    Table empty;
    empty.session = session;
    EXPECT_EQ(readTable(writeTable(empty)), empty);
}

TEST(Table, IsRefusedAtEveryTruncation) {
    const std::string whole = writeTable(fullTable());
    for (std::size_t length = 0; length + 1 < whole.size(); ++length) {
        EXPECT_TRUE(isRefused(whole.substr(0, length))) << length;
    }
}

TEST(Table, StandsFlippedBits) {
    Table small = fullTable();
    small.devices.pop_back();
    small.asleep.clear();
    const std::string whole = writeTable(small);
    for (std::size_t bit = 0; bit < 8 * whole.size(); bit += 3) {
        std::string flipped = whole;
        flipped[bit / 8] = static_cast<char>(flipped[bit / 8] ^ (1 << bit % 8));
        if (!isRefused(flipped)) {
            const Table table = readTable(flipped);
            EXPECT_LE(table.devices.size(), 2U);
            for (const Device& device : table.devices) {
                EXPECT_LE(device.minor, highestMinor);
                EXPECT_EQ(device.snapshot.size(), 36U);
                EXPECT_EQ(device.snapshot.find('/'), std::string::npos) << "it becomes a file name";
            }
        }
    }
}

/// A damaged or manipulated table must not lead to wrong devices or paths.
TEST(Table, RefusesWhatItNeverWrites) {
    const std::vector<std::pair<std::string, std::string>> changes = {
        {"\"format\": 2", "\"format\": 1"},
        {"\"server\": 4711", "\"server\": -1"},
        {"\"server\": 4711", "\"server\": 2147483648"},
        {"\"server_started\"", "\"server_begun\""},
        {"\"format\": 2", "\"format\": \"2\""},
        {"\"minor\": 255", "\"minor\": 256"},
        {"\"minor\": 255", "\"minor\": -1"},
        {"\"minor\": 255", "\"minor\": 1.5"},
        {"\"minor\": 255", "\"minor\": 0"},
        {"\"minor\": 255", "\"minor\": null"},
        {"\"state\": 3", "\"state\": 4"},
        {"\"state\": 3", "\"state\": 1"},
        {"\"state\": 3", "\"state\": 4294967298"},
        {"\"size\": 4096", "\"size\": 18446744073709551615"},
        {"\"size\": 4096", "\"size\": 1e300"},
        {"\"block_device\": \"/dev/sda1\"", "\"block_device\": \"dev/sda1\""},
        {"\"block_device\": \"/dev/sda1\"", "\"block_device\": \"\""},
        {"\"block_device\": \"/dev/sda1\"", "\"block_device\": [\"/dev/sda1\"]"},
        {"\"block_device\": \"/dev/sda1\"", "\"block_device\": \"/dev/sda1\\u0000x\""},
        {"12288", "-1"},
        {"12288", "1.5"},
        {"12288", "\"1\""},
        {"12288", "9223372036854775808"},
        {"12288", "1, 2"},
        {snapshot, "../../../../../../../etc/passwd00000"},
        {session, "x"},
    };
    for (const auto& [from, to] : changes) {
        EXPECT_TRUE(isRefused(withReplaced(from, to))) << to;
    }
}

TEST(Table, RefusesTheSameCaptureForTwoDevices) {
    Table table = fullTable();
    table.devices[1].snapshot = table.devices[0].snapshot;
    EXPECT_TRUE(isRefused(writeTable(table)));
}

TEST(Table, RefusesMoreThanThereCanBe) {
    Table table = fullTable();
    table.asleep.resize(mostAsleep, table.asleep.front());
    table.unfinished.resize(mostUnfinished, table.unfinished.front());
    EXPECT_FALSE(isRefused(writeTable(table)));
    table.asleep.push_back(table.asleep.front());
    EXPECT_TRUE(isRefused(writeTable(table)));
    table.asleep.pop_back();
    table.unfinished.push_back(table.unfinished.front());
    EXPECT_TRUE(isRefused(writeTable(table)));
}

TEST(Table, RefusesDeepAndForeignDocuments) {
    for (const std::string text : {"", "null", "[]", "{}", "1", "\"x\"", "\xff\xfe"}) {
        EXPECT_TRUE(isRefused(text)) << text;
    }
    EXPECT_TRUE(isRefused(std::string(1'000'000, '[')));
    EXPECT_TRUE(isRefused(withReplaced("\"format\": 2", "\"format\": 2, \"x\": [[[[[[]]]]]]")));
}

TEST(Table, CannotKeepAPathThatIsNotUtf8) {
    Table table = fullTable();
    table.devices[0].cowFile = "/\xff";
    try {
        writeTable(table);
        FAIL() << "written";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code().value(), EILSEQ);
    }
}

TEST(Table, FindsADeviceByItsMinor) {
    const Table table = fullTable();
    EXPECT_EQ(findDevice(table, 0), &table.devices[1]);
    EXPECT_EQ(findDevice(table, 1), nullptr);
}

} // namespace
} // namespace tolvubd
