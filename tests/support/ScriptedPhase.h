#pragma once

#include "core/operation/IPhase.h"

#include <functional>
#include <string>
#include <utility>

namespace agent::test {

/// A phase that runs a function of the test.
class ScriptedPhase : public core::IPhase {
public:
    explicit ScriptedPhase(std::string name, std::function<void()> action = {})
        : name(std::move(name)), action(std::move(action)) {}

    void execute() override {
        if (action) {
            action();
        }
    }
    [[nodiscard]] std::string getName() const override { return name; }

private:
    std::string name;
    std::function<void()> action;
};

} // namespace agent::test
