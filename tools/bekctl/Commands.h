#pragma once

#include "tools/common/Screen.h"

#include <cstddef>
#include <iosfwd>
#include <string>
#include <vector>

/// One function a command. Each looks, prints and returns the exit status; what keeps it from looking is
/// thrown, as std::exception.
namespace bekctl {

using tools::Screen;

enum ExitStatus { well = 0, unwell = 1, unusable = 2 };

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
/// `target` is HOST[:PORT], or empty for the one that the log has named last.
int showCheck(const Output& output, const std::string& target);
int showReasons(const Output& output);

struct LogOptions {
    std::size_t lines = 20; ///< of those that are there already
    std::string level = "debug";
    bool follow = false;
    bool toJournal = false; ///< in place of the output
};

/// The names of the levels, the most severe first.
std::vector<std::string> logLevels();
int showLog(const Output& output, const LogOptions& options);

} // namespace bekctl
