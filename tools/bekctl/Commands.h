#pragma once

#include "tools/common/Screen.h"

#include <cstddef>
#include <iosfwd>
#include <string>
#include <vector>

/// One function per command. Each one examines, prints and returns the exit status; if it can't examine, it
/// throws std::exception.
namespace bekctl {

using tools::Screen;

enum ExitStatus { exitOk = 0, exitProblem = 1, exitError = 2 };

/// Where a command prints, and in which form.
struct Output {
    std::ostream& out;
    Screen screen;
    bool isJson = false;
};

int showStatus(const Output& output);
int showVolumes(const Output& output);
int showBackups(const Output& output);
int showPairing(const Output& output);
int showCertificates(const Output& output);
/// `target` is HOST[:PORT]; empty means the last target that the log has named.
int showCheck(const Output& output, const std::string& target);
int showReasons(const Output& output);

struct LogOptions {
    std::size_t lines = 20; ///< existing lines to begin with
    std::string level = "debug";
    bool follow = false;
    bool toJournal = false; ///< instead of printing
};

/// The names of the levels, most severe first.
std::vector<std::string> logLevels();
int showLog(const Output& output, const LogOptions& options);

} // namespace bekctl
