#pragma once

#include "Table.h"
#include "seal/Seal.h"

#include <string>

namespace tolvubd::test {

inline constexpr const char* trackingId = "0f0c9f2e-57a5-4a0b-8a1c-000000000001";
inline constexpr const char* bootId = "1f0c9f2e-57a5-4a0b-8a1c-000000000002";

/// A seal in which all optional parts are present.
inline Seal makeSeal() {
    Device device{
        7, Mode::tracking, "/dev/vg/data", "/.tolvu", "2f0c9f2e-57a5-4a0b-8a1c-000000000003", 1U << 30U, 0,
        {}};
    device.layers =
        Layers{trackingId, "LVM-abc", {{4096, 1U << 20U}}, {{8U << 20U, 4096}}, 8, 3, "ff", {12345}, 0};
    return {Seal::End::open, bootId, device, Fingerprint{"ext", "mounted once", "content", false}};
}

} // namespace tolvubd::test
