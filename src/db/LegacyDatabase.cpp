#include "db/LegacyDatabase.h"

#include <limits>
#include <stdexcept>
#include <vector>

namespace agent::db {

namespace {

using Rows = std::vector<std::vector<qparam>>;

/// The checksum has 32 bits. Some versions stored it as a signed number.
std::uint32_t asChecksum(std::int64_t number) {
    const bool isChecksum = number >= std::numeric_limits<std::int32_t>::min() &&
                            number <= std::numeric_limits<std::uint32_t>::max();
    return isChecksum ? static_cast<std::uint32_t>(number) : 0;
}

std::int32_t asDeviceId(std::int64_t number) {
    const bool isId = number >= 1 && number <= std::numeric_limits<std::int32_t>::max();
    return isId ? static_cast<std::int32_t>(number) : 0;
}

} // namespace

LegacyDatabase::LegacyDatabase(info::Logger& logger, const std::string& path)
    : logger(logger), runner(logger, path) {}

std::int32_t LegacyDatabase::selectDeviceId() {
    try {
        Rows rows;
        runner.RunQuery("select id from device limit 1;", {}, rows);
        if (!rows.empty()) {
            return asDeviceId(rows.front().front().asNumber());
        }
        info::LogEntry(logger, info::level::debug) << "No value found for device id from legacy DB";
    } catch (const std::runtime_error& failure) {
        info::LogEntry(logger, info::level::error)
            << "Failed to select device ID from legacy DB: " << failure.what();
    }
    return 0;
}

std::string LegacyDatabase::selectConfigValue(const std::string& name) {
    try {
        Rows rows;
        runner.RunQuery("select value from config where name = '" + name + "' limit 1;", {}, rows);
        if (!rows.empty()) {
            return rows.front().front().text;
        }
        logger.log(info::level::debug, "No value found for %s from legacy DB", name.c_str());
    } catch (const std::runtime_error& failure) {
        logger.log(info::level::debug, "Failed to select %s from legacy DB: %s", name.c_str(),
                   failure.what());
    }
    return {};
}

std::uint32_t LegacyDatabase::selectLastChecksum(const std::string& column, const std::string& uuid) {
    try {
        Rows rows;
        runner.RunQuery("select image_chksum from history where " + column +
                            " like ? AND result = 'success' and image_chksum is not null order by id desc "
                            "limit 1;",
                        {qparam("%" + uuid + "%")}, rows);
        if (!rows.empty()) {
            return asChecksum(rows.front().front().asNumber());
        }
        logger.log(info::level::debug, "No last image checksum value found for volume %s from legacy DB",
                   uuid.c_str());
    } catch (const std::runtime_error& failure) {
        info::LogEntry(logger, info::level::error)
            << "Failed to get last image checksum from legacy DB: " << failure.what();
    }
    return 0;
}

} // namespace agent::db
