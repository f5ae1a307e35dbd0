#pragma once

#include <string>

namespace agent {

/// Makes and reads universally unique identifiers in their 36-character text form, lower case.
/// Owns:    nothing.
/// Threads: safe from any.
/// Fails:   `parse` throws std::invalid_argument on a text that is no UUID; the rest does not fail.
class UUIDGenerator {
public:
    UUIDGenerator() = default;
    UUIDGenerator(const UUIDGenerator&) = delete;
    UUIDGenerator& operator=(const UUIDGenerator&) = delete;
    virtual ~UUIDGenerator() = default;

    [[nodiscard]] virtual std::string generate() const;
    /// Returns the same UUID in the form that `generate` uses.
    [[nodiscard]] virtual std::string parse(const std::string& text) const;
    [[nodiscard]] virtual std::string nil() const;
};

} // namespace agent
