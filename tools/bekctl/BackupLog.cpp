#include "BackupLog.h"

#include "common/json/ParseJson.h"
#include "common/json/WholeNumber.h"
#include "info/log/LogLevel.h"
#include "tools/common/Text.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <exception>
#include <limits>
#include <string_view>
#include <utility>

namespace bekctl {

using tools::plain;

namespace {

using nlohmann::json;

constexpr std::size_t decorationBytes = 36; // date, time, level
constexpr std::size_t levelPosition = 24;
constexpr std::size_t longestRecord = 65'536;
constexpr std::size_t longestReasonLine = 4096;
constexpr std::size_t mostReasonLines = 1000; // per run
constexpr std::size_t mostReasons = 32;       // per volume
constexpr std::size_t mostVolumes = 1000;

constexpr std::string_view recordHead = "Backup record: ";
constexpr std::string_view runBegins = "Backup run beginning...";
constexpr std::string_view agentStarted = "Agent daemon started";
constexpr std::array<std::string_view, 3> runEnds = {
    "Backup run finished",
    "Exception occurred during backup run: ", "Unknown exception occurred during backup run"};
constexpr std::string_view phaseBegins = "Beginning execution of the ";
constexpr std::string_view phaseEnds = "Finished execution of the ";
constexpr std::string_view copyPhase = "Copy Volume ";
constexpr std::string_view phaseTail = " phase.";
/// Phases that never run during the copy of a volume.
constexpr std::array<std::string_view, 2> phasesAfterCopies = {"Close Backup Session",
                                                               "Transition To Incremental"};
constexpr std::string_view errorTag = "[ERROR:]";

bool endsRun(std::string_view text) {
    return std::ranges::any_of(runEnds, [&](std::string_view end) { return text.starts_with(end); });
}

/// A cheap filter that parses no dates: a log at level debug has millions of lines.
bool isOfInterest(std::string_view line) {
    if (line.size() <= decorationBytes) {
        return false;
    }
    const std::string_view text = line.substr(decorationBytes);
    return text.starts_with(recordHead) || text.starts_with(runBegins) || text.starts_with(agentStarted) ||
           text.starts_with(phaseBegins) || text.starts_with(phaseEnds) || endsRun(text) ||
           text.ends_with(']') || line.substr(levelPosition).starts_with(errorTag);
}

std::string textOf(const json& object, const char* key) {
    const auto found = object.find(key);
    return found != object.end() && found->is_string() ? plain(found->get<std::string>()) : "";
}

/// An estimate may have fallen below zero, which shows as a number larger than any volume; it is ignored.
std::optional<std::uint64_t> bytesOf(const json& object, const char* key) {
    constexpr auto most = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    const auto found = object.find(key);
    const auto bytes = found == object.end() ? std::nullopt : agent::wholeNumber<std::uint64_t>(*found);
    return bytes && *bytes <= most ? bytes : std::nullopt;
}

double secondsOf(const json& object) {
    const auto found = object.find("seconds");
    const double seconds = found != object.end() && found->is_number() ? found->get<double>() : 0;
    return std::isfinite(seconds) && seconds > 0 ? seconds : 0;
}

/// The text between `head` and the first character of `ends` after it; empty if `head` isn't found.
std::string_view between(std::string_view text, std::string_view head, std::string_view ends) {
    const std::size_t begin = text.find(head);
    if (begin == std::string_view::npos) {
        return {};
    }
    text.remove_prefix(begin + head.size());
    return text.substr(0, text.find_first_of(ends));
}

bool isAddress(std::string_view text) {
    constexpr std::size_t longest = 300;
    constexpr std::string_view letters =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_:[]";
    return !text.empty() && text.size() <= longest &&
           text.find_first_not_of(letters) == std::string_view::npos;
}

} // namespace

void BackupLog::add(const std::string& line) {
    if (!isOfInterest(line)) {
        return;
    }
    int level = 0;
    agent::info::LogTime time;
    std::string text;
    try {
        text = decorator.undecorate(line, level, time);
    } catch (const std::exception&) {
        return; // a further line of a message
    }
    addMessage(text, level, std::chrono::system_clock::to_time_t(time));
}

void BackupLog::addMessage(const std::string& text, int level, std::time_t time) {
    if (text.starts_with(recordHead)) {
        addRecord(text, time);
    } else if (text == runBegins) {
        begin(time);
    } else if (text.starts_with(agentStarted)) {
        dropUnfinishedRuns();
    } else if (text.starts_with(phaseBegins) || text.starts_with(phaseEnds)) {
        addPhase(text);
    } else {
        addReason(text);
        if (level == agent::info::level::error) {
            addTarget(text);
        }
        if (endsRun(text)) {
            end(time);
        }
    }
}

void BackupLog::addPhase(const std::string& text) {
    const bool isBegin = text.starts_with(phaseBegins);
    std::string_view name = text;
    name.remove_prefix((isBegin ? phaseBegins : phaseEnds).size());
    if (!name.ends_with(phaseTail)) {
        return;
    }
    name.remove_suffix(phaseTail.size());
    if (name.starts_with(copyPhase)) {
        run.copying = isBegin ? plain(std::string(name.substr(copyPhase.size()))) : "";
    } else if (std::ranges::find(phasesAfterCopies, name) != phasesAfterCopies.end()) {
        run.copying.clear();
    }
}

void BackupLog::addRecord(const std::string& text, std::time_t time) {
    if (text.size() > longestRecord || run.records.size() >= mostVolumes) {
        return;
    }
    try {
        const json stored = agent::parseJson(std::string_view(text).substr(recordHead.size()));
        BackupRecord record;
        record.volume = stored.is_object() ? textOf(stored, "volume") : "";
        if (record.volume.empty()) {
            return;
        }
        record.backup = textOf(stored, "backup");
        record.mountPoint = textOf(stored, "mountPoint");
        record.requestedType = textOf(stored, "asked");
        record.type = textOf(stored, "type");
        record.outcome = textOf(stored, "outcome");
        record.copiedBytes = bytesOf(stored, "copiedBytes");
        record.totalBytes = bytesOf(stored, "totalBytes");
        record.seconds = secondsOf(stored);
        record.end = time;
        run.records.push_back(std::move(record));
    } catch (const json::exception&) { // NOLINT(bugprone-empty-catch): no record of the agent's
    }
}

void BackupLog::addReason(const std::string& text) {
    const agent::info::Reason* const reason = agent::info::findReason(std::string_view(text));
    if (reason != nullptr && run.reasons.size() < mostReasonLines) {
        run.reasons.push_back({reason, run.copying, text.substr(0, longestReasonLine)});
    }
}

void BackupLog::addTarget(const std::string& text) {
    for (const auto& [head, ends] : {std::pair{"Target portal: ", " "}, std::pair{"zephane://", "/ "}}) {
        const std::string_view found = between(text, head, ends);
        if (isAddress(found)) {
            target = found;
        }
    }
}

void BackupLog::begin(std::time_t time) {
    if (openRuns == 0) {
        run = Run();
        run.begin = time;
    }
    ++openRuns;
}

void BackupLog::end(std::time_t time) {
    closeRun();
    openRuns = std::max(0, openRuns - 1);
    run.begin = time; // the waiting run begins now
}

void BackupLog::closeRun() {
    for (BackupRecord& record : run.records) {
        for (const ReasonLine& line : run.reasons) {
            const bool isNew = std::ranges::find(record.reasons, line.reason) == record.reasons.end();
            if (isNew && record.reasons.size() < mostReasons && isAbout(line, record)) {
                record.reasons.push_back(line.reason);
            }
        }
    }
    for (BackupRecord& record : run.records) {
        if (records.size() < mostVolumes || records.contains(record.volume)) {
            records.insert_or_assign(record.volume, std::move(record));
        }
    }
    run = Run();
    lastInterrupted.reset();
}

/// A backup that was running when the agent was restarted never logs its end.
void BackupLog::dropUnfinishedRuns() {
    if (openRuns == 0) {
        return;
    }
    const std::time_t begun = run.begin;
    closeRun();
    openRuns = 0;
    lastInterrupted = begun;
}

/// A line that names no volume of the run and was logged during no copy is about all volumes.
bool BackupLog::isAbout(const ReasonLine& line, const BackupRecord& record) const {
    if (!line.copying.empty()) {
        return line.copying == record.volume;
    }
    const auto names = [&](const BackupRecord& named) {
        return line.text.find(named.volume) != std::string::npos;
    };
    return names(record) || std::ranges::none_of(run.records, names);
}

std::optional<std::time_t> BackupLog::runningSince() const {
    return openRuns > 0 ? std::optional(run.begin) : std::nullopt;
}

} // namespace bekctl
