#pragma once

#include "SystemLog.h"

#include <exception>
#include <string>

namespace tolvubd {

/// For work that must not keep the rest from being done: what fails is logged, and false.
template <class Work>
bool tryTo(const std::string& what, const Work& work) {
    try {
        work();
        return true;
    } catch (const std::exception& error) {
        logLine(Severity::warning, "can't " + what + ": " + error.what());
        return false;
    }
}

} // namespace tolvubd
