#pragma once

#include "common/config/IConfig.h"

#include <stdexcept>

namespace agent::test {

/// A configuration that has only the one option that a copy reads.
class HolePunchOption : public IConfig {
public:
    void get(const std::string& key, bool& out) const override {
        require(key == "holepunch.enabled");
        out = enabled;
    }
    void get(const std::string& /*key*/, unsigned long& /*out*/) const override { require(false); }
    void get(const std::string& /*key*/, std::string& /*out*/) const override { require(false); }

    bool enabled = false;

private:
    static void require(bool isKnown) {
        if (!isKnown) {
            throw std::invalid_argument("no such option");
        }
    }
};

} // namespace agent::test
