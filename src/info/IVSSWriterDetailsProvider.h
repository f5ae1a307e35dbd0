#pragma once

#include <string>
#include <vector>

namespace agent {

/// An application that takes part in snapshots, on operating systems that have such applications.
struct VSSWriterDetails {
    std::string name;
};

/// Lists the applications that take part in snapshots on their own, without scripts.
/// Owns:    nothing.
/// Threads: any thread may call it.
/// Fails:   `getWriters` throws a std::exception if the applications can't be listed.
class IVSSWriterDetailsProvider {
public:
    virtual ~IVSSWriterDetailsProvider() = default;
    [[nodiscard]] virtual std::vector<VSSWriterDetails> getWriters() = 0;
};

} // namespace agent
