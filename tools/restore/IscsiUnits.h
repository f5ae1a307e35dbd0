#pragma once

#include "ImageAddress.h"

#include <string>
#include <vector>

namespace restore {

/// Whether the text names a whole iSCSI target: iscsi://[USER@]HOST[:PORT]/TARGET
bool isWholeTarget(const std::string& text);

/// The LUNs of a target, in the order in which it reports them. `address` may name any of them. Throws
/// std::runtime_error if the target can't be reached or doesn't report its LUNs.
std::vector<int> findUnits(const ImageAddress& address, const std::string& password);

} // namespace restore
