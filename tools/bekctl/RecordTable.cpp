#include "RecordTable.h"

#include "tools/common/Text.h"

namespace bekctl {

using tools::Colour;
using tools::durationText;
using tools::localText;
using tools::sizeText;
using tools::textOrNull;
using tools::utcText;

namespace {

std::string nameOf(const agent::info::Reason& reason) {
    return std::string(agent::info::kindName(reason.kind)) + ":" + std::string(reason.code);
}

std::string namesOf(const std::vector<const agent::info::Reason*>& reasons) {
    std::string names;
    for (const agent::info::Reason* const reason : reasons) {
        names += (names.empty() ? "" : ", ") + nameOf(*reason);
    }
    return names;
}

std::vector<std::string> notesOf(const BackupRecord& record) {
    std::vector<std::string> notes;
    if (record.requestedType != record.type && !record.requestedType.empty()) {
        notes.push_back("asked for " + record.requestedType);
    }
    if (!record.reasons.empty()) {
        notes.push_back(namesOf(record.reasons));
    }
    return notes;
}

Json bytesOrNull(const std::optional<std::uint64_t>& bytes) {
    return bytes ? Json(*bytes) : Json();
}

} // namespace

Table recordTable() {
    return Table({{"VOLUME", false, true},
                  {"WHEN"},
                  {"TYPE", false, true},
                  {"OUTCOME"},
                  {"COPIED", true},
                  {"TIME", true}});
}

void addRecord(Table& table, const BackupRecord& record) {
    const bool isGood = record.outcome == "success";
    table.add({record.mountPoint.empty() ? record.volume : record.mountPoint,
               localText(record.end),
               record.type,
               {record.outcome, isGood ? Colour::green : Colour::red},
               record.copiedBytes ? sizeText(*record.copiedBytes) : "-",
               durationText(record.seconds)},
              notesOf(record));
}

Json jsonOf(const agent::info::Reason& reason) {
    return {{"kind", agent::info::kindName(reason.kind)},
            {"code", reason.code},
            {"meaning", reason.meaning},
            {"remedy", reason.remedy}};
}

Json jsonOf(const BackupRecord& record) {
    Json reasons = Json::array();
    for (const agent::info::Reason* const reason : record.reasons) {
        reasons.push_back(jsonOf(*reason));
    }
    return {{"volume", record.volume},
            {"mountPoint", textOrNull(record.mountPoint)},
            {"backup", record.backup},
            {"asked", record.requestedType},
            {"type", record.type},
            {"outcome", record.outcome},
            {"copiedBytes", bytesOrNull(record.copiedBytes)},
            {"totalBytes", bytesOrNull(record.totalBytes)},
            {"seconds", record.seconds},
            {"end", utcText(record.end)},
            {"reasons", reasons}};
}

} // namespace bekctl
