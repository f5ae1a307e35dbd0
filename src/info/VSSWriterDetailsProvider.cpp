#include "info/VSSWriterDetailsProvider.h"

namespace agent::core::backup {

namespace {

constexpr std::chrono::minutes lifetime(5);

} // namespace

VSSWriterDetailsProvider::VSSWriterDetailsProvider()
    : writers(lifetime, [] { return std::vector<VSSWriterDetails>(); }) {}

std::vector<VSSWriterDetails> VSSWriterDetailsProvider::getWriters() {
    return writers.get();
}

} // namespace agent::core::backup
