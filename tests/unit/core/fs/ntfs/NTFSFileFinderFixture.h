#pragma once

#include "core/fs/ntfs/NTFSFileBlocks.h"
#include "core/fs/ntfs/NTFSParserImpl.h"
#include "support/NtfsDirectoryImage.h"
#include "support/RecordingLogger.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace agent::core::fs {

using test::NtfsDirectoryImage;
using Geometry = NtfsDirectoryImage::Geometry;
using Content = NtfsDirectoryImage::Content;
using Runs = std::vector<NTFSRun>;

inline constexpr std::uint64_t root = NtfsDirectoryImage::rootDirectory;
inline constexpr std::uint64_t directory = 20;
inline constexpr std::uint64_t file = 30;
inline constexpr std::uint64_t otherFile = 31;
inline constexpr std::uint32_t blockSize = 4096;

/// The message of the exception that `call` throws; empty if it throws none.
inline std::string errorOf(const std::function<void()>& call) {
    try {
        call();
        return "";
    } catch (const std::runtime_error& error) {
        return error.what();
    }
}

class NTFSFileFinderTest : public testing::Test {
protected:
    NTFSFileFinderTest() { make({}); }

    void make(const Geometry& geometry) {
        image = std::make_unique<NtfsDirectoryImage>(geometry);
        image->setRecord(file, {NtfsDirectoryImage::dataOf({{1000, 7}, {900, 3}})});
        image->setRecord(otherFile, {NtfsDirectoryImage::dataOf({{2000, 1}})});
    }

    Runs find(const std::string& path) { return findIn(image->volume, path).runs; }

    NTFSDataRuns findIn(IVolumeReader& volume, const std::string& path) {
        NTFSParserImpl parser(record.logger, volume, image->geometry.bytesPerSector);
        if (!parser.recognize()) {
            throw std::runtime_error("not recognised");
        }
        image->volume.requests.clear();
        return parser.findFileRuns(path);
    }

    [[nodiscard]] std::string error(const std::string& path) {
        return errorOf([this, &path] { find(path); });
    }

    FileBlocks blocksOf(const std::string& path) {
        return findNTFSFile(record.logger, image->volume, image->geometry.bytesPerSector, path);
    }

    /// Adds an index block to the root directory, as the child of its end entry.
    void setRootBlock(const Content& block) {
        image->setDirectory(root, {{u"b", otherFile, 0}}, 0, {{3000, 1}});
        image->volume.write(3000UL * image->clusterBytes, block);
    }

    /// Makes the root a directory with this node in its index root.
    void setRootNode(const Content& node, std::uint32_t size = blockSize) {
        image->setRecord(root, {NtfsDirectoryImage::indexRootOf(node, size)});
    }

    [[nodiscard]] bool hasRead(std::uint64_t cluster) const {
        const std::uint64_t offset = cluster * image->clusterBytes;
        for (const auto& request : image->volume.requests) {
            if (request.offset <= offset && offset < request.offset + request.length) {
                return true;
            }
        }
        return false;
    }

    static const inline Runs runs{{1000, 7}, {900, 3}};
    static const inline Runs otherRuns{{2000, 1}};
    test::RecordingLogger record;
    std::unique_ptr<NtfsDirectoryImage> image;
};

} // namespace agent::core::fs
