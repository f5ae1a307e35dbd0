#pragma once

#include <string>
#include <vector>

namespace agent {

/// An application that takes part in snapshots, on systems where there is such a thing.
struct VSSWriterDetails {
    std::string name;
};

/// Tells which applications take part in snapshots by themselves.
/// Owns:    nothing.
/// Threads: safe from any.
/// Fails:   by std::exception if they can't be asked.
class IVSSWriterDetailsProvider {
public:
    virtual ~IVSSWriterDetailsProvider() = default;
    [[nodiscard]] virtual std::vector<VSSWriterDetails> getWriters() = 0;
};

} // namespace agent
