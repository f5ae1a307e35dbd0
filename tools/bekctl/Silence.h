#pragma once

#include "info/log/Logger.h"

namespace bekctl {

/// For the agent's classes, which log: what matters of it is in what they return, or throw.
struct Silence {
    agent::info::Logger logger{agent::info::PrinterFunction()};
};

} // namespace bekctl
