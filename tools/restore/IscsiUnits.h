#pragma once

#include "ImageAddress.h"

#include <string>
#include <vector>

namespace restore {

/// Whether the text names an iSCSI target as a whole: iscsi://[USER@]HOST[:PORT]/TARGET
bool isWholeTarget(const std::string& text);

/// The LUNs of a target, in its own order. `address` is of any of them. Throws std::runtime_error if it can't
/// be reached, or doesn't tell.
std::vector<int> findUnits(const ImageAddress& address, const std::string& password);

} // namespace restore
