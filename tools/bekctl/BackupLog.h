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

/// The record of one volume that the agent has logged at the end of a backup.
struct BackupRecord {
    std::string backup;
    std::string volume;
    std::string mountPoint;
    std::string requestedType; ///< the type that the appliance requested
    std::string type;          ///< the type that was made
    std::string outcome;
    std::optional<std::uint64_t> copiedBytes; ///< not set if the backup ended before that
    std::optional<std::uint64_t> totalBytes;  ///< the estimate; not set if it is missing or impossible
    double seconds = 0;
    std::time_t end = 0;
    std::vector<const agent::info::Reason*> reasons; ///< pointers into the table, each once
};

/// Finds out from the lines of the log, oldest first, how backups ended. A line may hold anything, so only a
/// bounded part of each line is kept.
/// Owns:    all that it has kept.
/// Threads: one at a time.
/// Fails:   never: a line that can't be parsed is skipped.
class BackupLog {
public:
    BackupLog() = default;
    BackupLog(const BackupLog&) = delete;
    BackupLog& operator=(const BackupLog&) = delete;
    ~BackupLog() = default;

    void add(const std::string& line);

    /// The last record of each volume, by UUID.
    [[nodiscard]] const std::map<std::string, BackupRecord>& lastRecords() const { return records; }
    /// When the running backup began; not set if none is running.
    [[nodiscard]] std::optional<std::time_t> runningSince() const;
    /// The volume being copied; empty if none is.
    [[nodiscard]] const std::string& copying() const { return run.copying; }
    /// When the last backup that the agent's end cut off began; not set if a later backup has ended.
    [[nodiscard]] std::optional<std::time_t> beginOfInterrupted() const { return lastInterrupted; }
    /// "host:port" of the last target that a line has named; empty if none has.
    [[nodiscard]] const std::string& lastTarget() const { return target; }

private:
    /// A line with a reason, and the volume being copied at that time, if any.
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
    void dropUnfinishedRuns();
    [[nodiscard]] bool isAbout(const ReasonLine& line, const BackupRecord& record) const;

    agent::info::DateDecorator dates;
    agent::info::TagDecorator tags;
    agent::info::MultiDecorator decorator{{&dates, &tags}};
    std::map<std::string, BackupRecord> records;
    Run run;
    int openRuns = 0; ///< a cancelled backup may still be ending when the next one waits for its turn
    std::optional<std::time_t> lastInterrupted;
    std::string target;
};

} // namespace bekctl
