#pragma once

#include <functional>
#include <string>

namespace agent::test {

/// The message of the exception that an action throws, if it has the given type; otherwise a text that says
/// what happened instead.
template <typename Exception>
std::string messageOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const Exception& error) {
        return error.what();
    } catch (const std::exception& error) {
        return std::string("another exception was thrown: ") + error.what();
    }
    return "nothing was thrown";
}

} // namespace agent::test
