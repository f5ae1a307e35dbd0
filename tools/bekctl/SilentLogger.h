#pragma once

#include "info/log/Logger.h"

namespace bekctl {

/// A logger that prints nothing, for the agent's classes: bekctl needs only what they return or throw.
struct SilentLogger {
    agent::info::Logger logger{agent::info::PrinterFunction()};
};

} // namespace bekctl
