#pragma once

#include "info/log/DateDecorator.h"
#include "info/log/MultiDecorator.h"
#include "info/log/Reason.h"
#include "info/log/TagDecorator.h"

#include <cstdint>
#include <ctime>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace bekctl {

/// What the agent has noted of one volume at the end of a backup.
struct BackupRecord {
    std::string backup;
    std::string volume;
    std::string mountPoint;
    std::string asked; ///< the type that the appliance has asked for
    std::string type;  ///< the one that it became
    std::string outcome;
    std::optional<std::uint64_t> copiedBytes; ///< nothing if it didn't come so far
    std::optional<std::uint64_t> totalBytes;  ///< the estimate; nothing if there is none that can be right
    double seconds = 0;
    std::time_t end = 0;
    std::vector<const agent::info::Reason*> reasons; ///< of the table, each once
};

/// Makes out of the lines of the log, oldest first, what has become of the backups. A line may hold anything:
/// what is kept of one is bounded.
class BackupLog {
public:
    BackupLog() = default;
    BackupLog(const BackupLog&) = delete;
    BackupLog& operator=(const BackupLog&) = delete;
    ~BackupLog() = default;

    void add(const std::string& line);

    /// The last record of each volume, by UUID.
    [[nodiscard]] const std::map<std::string, BackupRecord>& lastRecords() const { return records; }
    /// When the backup began that hasn't ended, if there is one.
    [[nodiscard]] std::optional<std::time_t> runningSince() const;
    /// The volume that it copies; empty if none.
    [[nodiscard]] const std::string& copying() const { return run.copying; }
    /// When the last backup began that ended with the agent, before its end; if no later one has ended.
    [[nodiscard]] std::optional<std::time_t> cutOff() const { return lastCutOff; }
    /// "host:port" of the target that a line has named last; empty if none has.
    [[nodiscard]] const std::string& lastTarget() const { return target; }

private:
    /// A line that has a reason, and the volume that was being copied, if any was.
    struct ReasonLine {
        const agent::info::Reason* reason = nullptr;
        std::string copying;
        std::string text;
    };
    struct Run {
        std::time_t begin = 0;
        std::string copying;
        std::vector<BackupRecord> records;
        std::vector<ReasonLine> reasons;
    };

    void addMessage(const std::string& text, int level, std::time_t time);
    void addPhase(const std::string& text);
    void addRecord(const std::string& text, std::time_t time);
    void addReason(const std::string& text);
    void addTarget(const std::string& text);
    void begin(std::time_t time);
    void end(std::time_t time);
    void closeRun();
    void giveUpRuns();
    [[nodiscard]] bool isAbout(const ReasonLine& line, const BackupRecord& record) const;

    agent::info::DateDecorator dates;
    agent::info::TagDecorator tags;
    agent::info::MultiDecorator decorator{{&dates, &tags}};
    std::map<std::string, BackupRecord> records;
    Run run;
    int openRuns = 0; ///< a cancelled backup may still be ending when the next one waits for its turn
    std::optional<std::time_t> lastCutOff;
    std::string target;
};

} // namespace bekctl
