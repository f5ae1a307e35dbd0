#pragma once

#include "SystemLog.h"

#include <exception>
#include <string>

namespace tolvubd {

/// Runs work whose failure must not stop the rest: on an exception, logs it and returns false.
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
