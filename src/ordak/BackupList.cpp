#include "ordak/BackupList.h"

#include <nlohmann/json.hpp>

namespace agent::ordak {

namespace {

const char* groupOf(std::uint32_t state) {
    switch (state) {
    case core::backup::BACKUP_ACTIVE:
        return "active";
    case core::backup::BACKUP_FINISHED:
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
