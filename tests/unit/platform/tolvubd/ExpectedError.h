#pragma once

#include <gtest/gtest.h>

#include <system_error>

namespace tolvubd::test {

/// The errno that a caller of the library would see; 0 if the work succeeds.
template <class Work>
int errorOf(const Work& work) {
    try {
        work();
    } catch (const std::system_error& error) {
        return error.code().value();
    }
    return 0;
}

} // namespace tolvubd::test
