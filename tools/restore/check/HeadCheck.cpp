#include "HeadCheck.h"

#include "core/backup/VolumeChecksumGenerator.h"
#include "core/checksum/BufferChecksumGeneratorFactory.h"
#include "os/AlignedBuffer.h"
#include "tools/bekctl/Database.h"

#include <optional>
#include <stdexcept>

namespace restore::check {

namespace {

constexpr std::size_t headBytes = agent::core::backup::VolumeChecksumGenerator::regionBytes;
constexpr std::size_t headAlignment = 4096;

std::uint32_t checksumOf(IImage& image, agent::db::ChecksumType type) {
    os::AlignedBuffer head(headBytes, headAlignment);
    image.read({head.data(), head.size()}, 0);
    std::uint32_t sum = 0;
    if (!agent::BufferChecksumGeneratorFactory().create(type)->generate(head.data(), head.size(), sum)) {
        throw std::runtime_error("the head can't be summed up on this machine");
    }
    return sum;
}

} // namespace

void checkHead(IImage& image, const std::string& database, const std::string& uuid, Findings& findings) {
    const std::optional<bekctl::ImageChecksum> noted = bekctl::readImageChecksum(database, uuid);
    if (!noted || image.size() < headBytes) {
        findings.notProven.emplace_back("the agent's database has no checksum of this image");
        return;
    }
    if (checksumOf(image, noted->type) == noted->value) {
        findings.proven.emplace_back("its head is what the last backup has left");
        return;
    }
    findings.damage.push_back(
        {"head",
         "its first 10 MiB are not what the last backup has left: it is another image, or "
         "it was changed since",
         ""});
}

} // namespace restore::check
