#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace restore::check {

/// One thing that is wrong with an image.
struct Damage {
    std::string kind;    ///< a keyword for programs
    std::string text;    ///< for people, one line
    std::string details; ///< further lines, such as a checker's output; may be empty
};

/// The results of a check so far.
struct Findings {
    std::vector<std::string> proven;    ///< what was checked and is as it should be
    std::vector<std::string> notProven; ///< what couldn't be checked, and why
    std::vector<Damage> damage;
    std::uint64_t comparedBytes = 0;
    std::uint64_t comparedFiles = 0;
};

} // namespace restore::check
