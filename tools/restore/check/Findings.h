#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace restore::check {

/// What is wrong with an image.
struct Damage {
    std::string kind;    ///< a word for programs
    std::string text;    ///< for people, one line
    std::string details; ///< lines, such as those that a checker has printed; may be empty
};

/// What a check has found out so far.
struct Findings {
    std::vector<std::string> proven; ///< what has been looked at and is as it should be
    std::vector<std::string> open;   ///< what could not be looked at, and why
    std::vector<Damage> damage;
    std::uint64_t comparedBytes = 0;
    std::uint64_t comparedFiles = 0;
};

} // namespace restore::check
