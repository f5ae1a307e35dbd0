#include "Command.h"

#include <cstdio>
#include <exception>
#include <stdexcept>

namespace tools {

int statusOf(const char* program, const Run& run) noexcept {
    try {
        return run();
    } catch (const std::invalid_argument& error) {
        std::fprintf(stderr, "%s: %s\n", program, error.what());
        return wrongCommand;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", program, error.what());
        return failed;
    }
}

} // namespace tools
