#include "ChangeWatch.h"
#include "Commands.h"
#include "JournalSocket.h"
#include "LogTail.h"
#include "RecordTable.h"
#include "common/PeerText.h"
#include "info/log/DateDecorator.h"
#include "info/log/FilePrinter.h"
#include "info/log/LogLevel.h"
#include "info/log/MultiDecorator.h"
#include "info/log/Reason.h"
#include "info/log/TagDecorator.h"
#include "tools/common/Json.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <stdexcept>

namespace bekctl {

using tools::Colour;
using tools::momentOrNull;

namespace {

constexpr std::array<const char*, 5> levelNames{"critical", "error", "warning", "info", "debug"};
/// Syslog's priorities, in the order of the levels.
constexpr std::array<int, levelNames.size()> priorities{2, 3, 4, 6, 7};

/// One line of the log. Further lines of a message have its level, and no time.
struct LogLine {
    int level = agent::info::level::info;
    std::optional<std::time_t> time;
    std::string text;
    std::string whole;
};

using Sink = std::function<void(const LogLine&)>;

/// Parses lines, and remembers the level for the further lines of a message.
class LineReader {
public:
    LogLine read(const std::string& line) {
        LogLine read{level, std::nullopt, line, line};
        try {
            agent::info::LogTime time;
            read.text = decorator.undecorate(line, read.level, time);
            read.time = std::chrono::system_clock::to_time_t(time);
            level = read.level;
        } catch (const std::exception&) { // NOLINT(bugprone-empty-catch): not the first line of a message
        }
        return read;
    }

private:
    agent::info::DateDecorator dates;
    agent::info::TagDecorator tags;
    agent::info::MultiDecorator decorator{{&dates, &tags}};
    int level = agent::info::level::info;
};

Colour colourOf(int level) {
    if (level <= agent::info::level::error) {
        return Colour::red;
    }
    return level == agent::info::level::warning ? Colour::yellow : Colour::none;
}

void printLine(const Output& output, const LogLine& line) {
    output.out << output.screen.paint(colourOf(line.level), agent::printable(line.whole)) << '\n';
}

/// One object per line, so that a program can parse them while the log grows.
void printObject(const Output& output, const LogLine& line) {
    const agent::info::Reason* const reason = agent::info::findReason(line.text);
    const Json object{{"time", momentOrNull(line.time)},
                      {"level", levelNames.at(static_cast<std::size_t>(line.level))},
                      {"text", line.text},
                      {"reason", reason == nullptr ? Json() : jsonOf(*reason)}};
    output.out << object.dump(-1, ' ', false, Json::error_handler_t::replace) << '\n';
}

Sink sinkOf(const Output& output, const LogOptions& options) {
    if (options.toJournal) {
        return [journal = std::make_shared<JournalSocket>()](const LogLine& line) {
            journal->send(priorities.at(static_cast<std::size_t>(line.level)), agent::printable(line.text));
        };
    }
    return [&output](const LogLine& line) {
        output.isJson ? printObject(output, line) : printLine(output, line);
    };
}

int levelOf(const std::string& name) {
    const auto* const found = std::ranges::find(levelNames, name);
    if (found == levelNames.end()) {
        throw std::invalid_argument("no such level: " + name);
    }
    return static_cast<int>(found - levelNames.begin());
}

} // namespace

std::vector<std::string> logLevels() {
    return {levelNames.begin(), levelNames.end()};
}

int showLog(const Output& output, const LogOptions& options) {
    const agent::Path directory = agent::info::FilePrinter::logDirectory();
    const int level = levelOf(options.level);
    const Sink sink = sinkOf(output, options);
    ChangeWatch watch(directory); // before the first read, so that no change is missed
    LogTail tail(directory);
    LineReader reader;
    tail.goToLast(options.lines);
    while (output.out) {
        for (std::string line; tail.next(line);) {
            const LogLine read = reader.read(line);
            if (read.level <= level) {
                sink(read);
            }
        }
        output.out.flush();
        if (!options.follow) {
            break;
        }
        watch.wait();
    }
    return exitOk;
}

} // namespace bekctl
