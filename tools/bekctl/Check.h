#pragma once

#include <string>
#include <vector>

namespace bekctl {

enum class Verdict {
    ok,
    warning, ///< the next backup copies more than it is asked to, or something will fail later
    failure, ///< the next backup fails
    open,    ///< couldn't be checked, or there is nothing to check
};

/// The result of one check.
struct Finding {
    std::string name; ///< stable, for programs
    Verdict verdict = Verdict::ok;
    std::string text;
    // NOLINTBEGIN(readability-redundant-member-init): without it each finding would have to name them
    std::string remedy{}; ///< what to do; empty if there is nothing to do
    std::string volume{}; ///< UUID of the volume that it is about, if any
    // NOLINTEND(readability-redundant-member-init)
};

using Findings = std::vector<Finding>;

} // namespace bekctl
