#include "ordak/BackupList.h"

#include <nlohmann/json.hpp>

namespace agent::ordak {

namespace {

// The overall states, as the register of backups gives them.
constexpr std::uint32_t active = 0;
constexpr std::uint32_t finished = 3;

const char* groupOf(std::uint32_t state) {
    switch (state) {
    case active:
        return "active";
    case finished:
        return "finished";
    default:
        return "failed";
    }
}

} // namespace

BackupList::BackupList(core::backup::IBackupManager& backups, info::Logger& logger)
    : backups(backups), logger(logger) {}

APIResponse BackupList::operator()() {
    using nlohmann::json;
    info::LogEntry(logger, info::level::info) << "Handling getting all backup statuses";
    std::unordered_map<std::string, std::uint32_t> states;
    backups.getStatuses(states);
    json groups = {{"active", json::array()}, {"failed", json::array()}, {"finished", json::array()}};
    for (const auto& [id, state] : states) {
        groups[groupOf(state)].push_back(id);
    }
    return makeJsonResponse(groups, 200);
}

} // namespace agent::ordak
