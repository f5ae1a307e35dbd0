#pragma once

#include <string>
#include <vector>

namespace bekctl {

enum class Verdict {
    well,
    warning, ///< the next backup copies more than it is asked to, or something will fail later
    failure, ///< the next backup fails
    open,    ///< couldn't be looked at, or there is nothing to look at
};

/// What one look has found.
struct Finding {
    std::string name; ///< stays the same for programs
    Verdict verdict = Verdict::well;
    std::string text;
    // NOLINTBEGIN(readability-redundant-member-init): without it each finding would have to name them
    std::string remedy{}; ///< what to do; empty where nothing has to be done
    std::string volume{}; ///< the UUID of the one that it is about, if any
    // NOLINTEND(readability-redundant-member-init)
};

using Findings = std::vector<Finding>;

} // namespace bekctl
