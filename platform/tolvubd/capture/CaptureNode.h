#pragma once

#include <cstdint>
#include <string>

namespace tolvubd {

/// Shows a capture as the block device /dev/tolvu<minor>, read-only, through a loop device. The node appears
/// only when it can be used.
void showCapture(const std::string& capture, std::uint32_t sectorSize, std::uint32_t minor);
/// Takes the capture's loop devices away, now or when their last user has closed them.
void detachCapture(const std::string& capture);

} // namespace tolvubd
