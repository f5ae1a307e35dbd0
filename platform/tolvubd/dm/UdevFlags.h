#pragma once

#include "dm/Mapper.h"

#include <cstdint>
#include <libdevmapper.h>

namespace tolvubd::dm {

/// The flags for udev's rules in a resume event. udev makes the links; the library makes none.
inline std::uint16_t udevFlags(Visibility visibility) {
    constexpr std::uint16_t shown = DM_UDEV_PRIMARY_SOURCE_FLAG | DM_UDEV_DISABLE_LIBRARY_FALLBACK;
    constexpr std::uint16_t hidden = shown | DM_UDEV_DISABLE_SUBSYSTEM_RULES_FLAG |
                                     DM_UDEV_DISABLE_DISK_RULES_FLAG | DM_UDEV_DISABLE_OTHER_RULES_FLAG;
    return visibility == Visibility::shown ? shown : hidden;
}

} // namespace tolvubd::dm
