#pragma once

#include "info/IVSSWriterDetailsProvider.h"
#include "info/SimpleCache.h"

namespace agent::core::backup {

/// Linux has no such applications; it has quiesce scripts instead. See IVSSWriterDetailsProvider.
class VSSWriterDetailsProvider : public IVSSWriterDetailsProvider {
public:
    VSSWriterDetailsProvider();
    [[nodiscard]] std::vector<VSSWriterDetails> getWriters() override;

private:
    info::SimpleCache<std::vector<VSSWriterDetails>> writers;
};

} // namespace agent::core::backup
