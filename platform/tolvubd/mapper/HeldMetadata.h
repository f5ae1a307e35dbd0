#pragma once

#include "dm/Mapper.h"

namespace tolvubd {

/// Holds a metadata snapshot of an era target, which can be read while programs write to the volume.
/// Owns:    the metadata snapshot. One that somebody has left behind is let go first.
/// Threads: one at a time.
/// Fails:   std::system_error.
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
