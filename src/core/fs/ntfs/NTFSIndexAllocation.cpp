#include "core/fs/ntfs/NTFSIndexAllocation.h"

#include "core/fs/ntfs/NTFSLayout.h"

#include <stdexcept>
#include <utility>

namespace agent::core::fs {

namespace {

namespace layout = ntfs_layout::index_block;

} // namespace

NTFSIndexAllocation::NTFSIndexAllocation(NTFSRunReader content, std::uint64_t blockSize,
                                         std::uint64_t clusterBytes, const NTFSPathElement& sought)
    : content(std::move(content)),
      blockSize(blockSize),
      vcnsOfBlock(blockSize / (clusterBytes <= blockSize ? clusterBytes : layout::smallUnit)),
      sought(sought) {
    const std::uint64_t size = this->content.size();
    requireSize(blockSize <= maxBlockSize && size <= maxIndexBytes);
    wasRead.resize(size / blockSize);
}

NTFSRecord NTFSIndexAllocation::readBlock(std::uint64_t vcn) {
    const std::uint64_t number = vcn / vcnsOfBlock;
    require(vcn % vcnsOfBlock == 0 && number < wasRead.size() && !wasRead[number]);
    wasRead[number] = true;
    NTFSRecord block(blockSize);
    require(content.read(number * blockSize, block.bytes) && block.hasMagic(layout::magicValue) &&
            block.applyFixups() && littleEndian<std::uint64_t>(block.bytes, layout::vcn) == vcn);
    return block;
}

NTFSIndexNode NTFSIndexAllocation::nodeOf(const NTFSRecord& block) const {
    const Bytes node = Bytes(block.bytes).subspan(layout::size);
    requireSize(NTFSIndexNode::usedBytes(node) <= node.size());
    return {node, sought};
}

void NTFSIndexAllocation::require(bool holds) const {
    if (!holds) {
        throw std::runtime_error("Unable to read INDEX ENTRY");
    }
}

void NTFSIndexAllocation::requireSize(bool holds) const {
    if (!holds) {
        sought.fail("Size of index buffer of directory ", " exceeds maximum limit");
    }
}

} // namespace agent::core::fs
