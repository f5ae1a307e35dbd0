#include "lvm/VolumeSearch.h"

#include "lvm/Bytes.h"
#include "lvm/MetadataArea.h"
#include "lvm/PhysicalVolume.h"
#include "lvm/VolumeGroup.h"

#include <cerrno>
#include <cstdint>
#include <string_view>
#include <system_error>
#include <utility>

namespace tolvubd::lvm {
namespace {

/// LVM may be writing at the same time, so that a text is overwritten after its header was read.
constexpr int attempts = 3;

constexpr std::string_view prefix = "LVM-";
constexpr std::size_t uuidSize = 32;

struct Answer {
    std::uint64_t sequence = 0;
    std::optional<std::vector<VolumePiece>> pieces;
};

/// One search through all areas of the devices, for one volume.
class Search {
public:
    Search(const std::string& uuid, const std::vector<OpenDevice>& devices)
        : group(uuid.substr(prefix.size(), uuidSize)), volume(uuid.substr(prefix.size() + uuidSize)) {
        std::vector<PhysicalVolume> labels;
        for (const OpenDevice& device : devices) {
            labels.push_back(readPhysicalVolume(device.file));
            if (!known.emplace(labels.back().uuid, device.number).second) {
                failOn("two devices are the same physical volume");
            }
        }
        for (std::size_t index = 0; index < devices.size(); ++index) {
            for (const Place& area : labels[index].metadataAreas) {
                look(devices[index].file, area);
            }
        }
    }

    /// Whether all areas were sound, so that another search wouldn't find more.
    [[nodiscard]] bool isComplete() const { return unsound == 0; }

    [[nodiscard]] std::optional<std::vector<VolumePiece>> result() const {
        if (sound == 0) {
            failOn("no area is sound");
        }
        return newest ? newest->pieces : std::nullopt;
    }

private:
    void look(const os::FileDescriptor& file, const Place& area) {
        std::optional<std::string> text;
        try {
            text = readMetadata(file, area);
        } catch (const std::system_error& error) {
            if (error.code().value() != EBADMSG) {
                throw;
            }
            ++unsound;
            return;
        }
        sound += text ? 1 : 0;
        if (text && !text->empty()) {
            consider(*text);
        }
    }

    void consider(const std::string& text) {
        const VolumeGroup found(text);
        if (found.uuid() != group) {
            return;
        }
        const std::uint64_t sequence = found.sequence();
        if (newest && sequence < newest->sequence) {
            return;
        }
        Answer answer{sequence, found.piecesOf(volume, known)};
        if (newest && sequence == newest->sequence && answer.pieces != newest->pieces) {
            failOn("two texts of the same age differ");
        }
        newest = std::move(answer);
    }

    std::string group;
    std::string volume;
    PhysicalDevices known;
    int sound = 0;
    int unsound = 0;
    std::optional<Answer> newest;
};

} // namespace

std::optional<std::vector<VolumePiece>> findLogicalVolume(const std::string& uuid,
                                                          const std::vector<OpenDevice>& devices) {
    if (uuid.size() != prefix.size() + 2 * uuidSize || !uuid.starts_with(prefix)) {
        return std::nullopt;
    }
    for (int attempt = 1;; ++attempt) {
        const Search search(uuid, devices);
        if (search.isComplete() || attempt == attempts) {
            return search.result();
        }
    }
}

} // namespace tolvubd::lvm
