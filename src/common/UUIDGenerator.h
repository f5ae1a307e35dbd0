#pragma once

#include <string>

namespace agent {

/// Generates and parses UUIDs in their 36-character text form, in lower case.
/// Owns:    nothing.
/// Threads: any thread may call it.
/// Fails:   `parse` throws std::invalid_argument if the text is not a UUID; the other functions don't fail.
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
