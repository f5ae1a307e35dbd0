#include "RecordTable.h"

#include "Text.h"

namespace bekctl {

namespace {

std::string namesOf(const std::vector<Reason>& reasons) {
    std::string names;
    for (const Reason& reason : reasons) {
        names += (names.empty() ? "" : ", ") + reason.kind + ":" + reason.code;
    }
    return names;
}

std::vector<std::string> notesOf(const BackupRecord& record) {
    std::vector<std::string> notes;
    if (record.asked != record.type && !record.asked.empty()) {
        notes.push_back("asked for " + record.asked);
    }
    if (!record.reasons.empty()) {
        notes.push_back(namesOf(record.reasons));
    }
    return notes;
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
               sizeText(record.copiedBytes),
               durationText(record.seconds)},
              notesOf(record));
}

Json jsonOf(const BackupRecord& record) {
    Json reasons = Json::array();
    for (const Reason& reason : record.reasons) {
        reasons.push_back({{"kind", reason.kind}, {"code", reason.code}});
    }
    return {{"volume", record.volume},
            {"mountPoint", textOrNull(record.mountPoint)},
            {"backup", record.backup},
            {"asked", record.asked},
            {"type", record.type},
            {"outcome", record.outcome},
            {"copiedBytes", record.copiedBytes},
            {"totalBytes", record.totalBytes},
            {"seconds", record.seconds},
            {"end", utcText(record.end)},
            {"reasons", reasons}};
}

} // namespace bekctl
