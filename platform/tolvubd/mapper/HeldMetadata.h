#pragma once

#include "dm/Mapper.h"

namespace tolvubd {

/// Holds a metadata snapshot of an era target, which can be read while programs write to the volume.
/// Owns:    the metadata snapshot. The constructor first drops one that was left behind.
/// Threads: one at a time.
/// Fails:   the constructor throws std::system_error; the destructor logs.
class HeldMetadata {
public:
    explicit HeldMetadata(const dm::Device& volume);
    HeldMetadata(const HeldMetadata&) = delete;
    HeldMetadata& operator=(const HeldMetadata&) = delete;
    ~HeldMetadata();

private:
    dm::Device volume;
};

} // namespace tolvubd
