#include "core/fs/ext/EXTFeatures.h"

#include "core/fs/Features.h"

#include <array>

namespace agent::core::fs {

namespace {

constexpr std::array incompatFeatures{
    Feature{0x1, "compression", false},
    Feature{0x2, "filetype", true},
    Feature{0x4, "needs_recovery", false},
    Feature{0x8, "journal_dev", false},
    Feature{0x10, "meta_bg", true}, // EXTSuperBlock::whyUnusable checks the number of descriptors instead
    Feature{0x40, "extent", true},
    Feature{0x80, "64bit", true},
    Feature{0x100, "mmp", true},
    Feature{0x200, "flex_bg", true},
    Feature{0x400, "ea_inode", true},
    Feature{0x1000, "dirdata", false},
    Feature{0x2000, "metadata_csum_seed", true},
    Feature{0x4000, "large_dir", true},
    Feature{0x8000, "inline_data", true},
    Feature{0x10000, "encrypt", true},
    Feature{0x20000, "casefold", true},
};

constexpr std::array roCompatFeatures{
    Feature{0x1, "sparse_super", true},
    Feature{0x2, "large_file", true},
    Feature{0x4, "btree_dir", true},
    Feature{0x8, "huge_file", true},
    Feature{0x10, "uninit_bg", true},
    Feature{0x20, "dir_nlink", true},
    Feature{0x40, "extra_isize", true},
    Feature{0x80, "has_snapshot", false},
    Feature{0x100, "quota", true},
    Feature{0x200, "bigalloc", false},
    Feature{0x400, "metadata_csum", true},
    Feature{0x800, "replica", false},
    Feature{0x1000, "read-only", true},
    Feature{0x2000, "project", true},
    Feature{0x4000, "shared_blocks", false},
    Feature{0x8000, "verity", true},
    Feature{0x10000, "orphan_present", true},
};

} // namespace

std::string unsupportedEXTFeatures(std::uint32_t incompat, std::uint32_t roCompat) {
    return unsupportedFeatures(
        {{incompat, incompatFeatures, "incompat"}, {roCompat, roCompatFeatures, "ro_compat"}});
}

} // namespace agent::core::fs
