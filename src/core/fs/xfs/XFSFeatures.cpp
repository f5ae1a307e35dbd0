#include "core/fs/xfs/XFSFeatures.h"

#include "core/fs/Features.h"

#include <array>

namespace agent::core::fs {

namespace {

constexpr std::array incompatFeatures{
    Feature{0x1, "ftype", true},     Feature{0x2, "sparse", true},        Feature{0x4, "meta_uuid", true},
    Feature{0x8, "bigtime", true},   Feature{0x10, "needsrepair", false}, Feature{0x20, "nrext64", true},
    Feature{0x40, "exchange", true}, Feature{0x80, "parent", true},       Feature{0x100, "metadir", true},
    Feature{0x200, "zoned", false},  Feature{0x400, "zone_gaps", false},
};

constexpr std::array roCompatFeatures{
    Feature{0x1, "finobt", true},
    Feature{0x2, "rmapbt", true},
    Feature{0x4, "reflink", true},
    Feature{0x8, "inobtcount", true},
};

/// The features2 of the format without checksums. The feature bits in its version field are all known.
constexpr std::array moreFeatures{
    Feature{0x2, "lazy-count", true},   Feature{0x8, "attr2", true},   Feature{0x10, "parent", false},
    Feature{0x80, "projid32bit", true}, Feature{0x200, "ftype", true},
};

} // namespace

std::string unsupportedXFSFeatures(const XFSFeatureWords& words) {
    if (!words.hasCrc) {
        return unsupportedFeatures({{words.features2, moreFeatures, "features2"}});
    }
    return unsupportedFeatures(
        {{words.incompat, incompatFeatures, "incompat"}, {words.roCompat, roCompatFeatures, "ro_compat"}});
}

} // namespace agent::core::fs
