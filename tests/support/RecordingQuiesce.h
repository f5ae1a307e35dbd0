#pragma once

#include "core/script/IQuiesce.h"

#include <functional>
#include <string>
#include <vector>

namespace agent::test {

/// Records scripts instead of running them: "name timeout pre" or "name timeout post".
class RecordingQuiesce : public core::script::IQuiesce {
public:
    std::set<std::string> getScripts(const std::string& /*directory*/) override { return {}; }

    void runScript(const std::string& script, std::uint32_t timeoutSeconds, bool isPre) override {
        runs.push_back(script + " " + std::to_string(timeoutSeconds) + (isPre ? " pre" : " post"));
        if (onRun) {
            onRun();
        }
    }

    std::vector<std::string> runs;
    std::function<void()> onRun; ///< may throw
};

} // namespace agent::test
