#pragma once

#include "dm/Mapper.h"

#include <cstdint>
#include <libdevmapper.h>

namespace tolvubd::dm {

/// What udev's rules are told with the event of a resume. udev makes the links, and the library none beside
/// it.
inline std::uint16_t udevFlags(Visibility visibility) {
    constexpr std::uint16_t shown = DM_UDEV_PRIMARY_SOURCE_FLAG | DM_UDEV_DISABLE_LIBRARY_FALLBACK;
    constexpr std::uint16_t hidden = shown | DM_UDEV_DISABLE_SUBSYSTEM_RULES_FLAG |
                                     DM_UDEV_DISABLE_DISK_RULES_FLAG | DM_UDEV_DISABLE_OTHER_RULES_FLAG;
    return visibility == Visibility::shown ? shown : hidden;
}

} // namespace tolvubd::dm
