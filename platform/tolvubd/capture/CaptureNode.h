#pragma once

#include <cstdint>
#include <string>

namespace tolvubd {

/// Shows a capture as the block device /dev/tolvu<minor>, read-only, through a loop device. The node appears
/// only when the device is ready.
void showCapture(const std::string& capture, std::uint32_t sectorSize, std::uint32_t minor);
/// Detaches the capture's loop devices, now or when their last user closes them.
void detachCapture(const std::string& capture);

} // namespace tolvubd
