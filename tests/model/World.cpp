#include "model/World.h"

#include "common/BaseDirectories.h"
#include "common/Directory.h"
#include "common/File.h"
#include "info/VolumeFiles.h"

#include <new>
#include <stdexcept>
#include <sys/mman.h>

namespace agent::model {

World::World() : shared(nullptr) {
    void* memory = ::mmap(nullptr, sizeof(State), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        throw std::runtime_error("no shared memory");
    }
    shared = new (memory) State();
}

World::~World() {
    ::munmap(shared, sizeof(State));
}

std::string World::uuidOf(std::size_t index) {
    return "00000000-0000-0000-0000-00000000000" + std::to_string(index);
}

std::string World::devicePathOf(std::size_t index) {
    return "/dev/model" + std::to_string(index);
}

std::string World::snapshotMountOf(std::size_t index) {
    return "/tmp/tolvuMountRoot/" + uuidOf(index);
}

std::string World::reloadScriptOf(std::int32_t minor) {
    return dir::base() / ("reload_" + std::to_string(minor));
}

std::string World::mountPointOf(std::size_t index) const {
    return directory / ("volume" + std::to_string(index));
}

std::string World::historyOf(std::size_t index) const {
    return mountPointOf(index) + "/" + info::volume_files::history;
}

std::string World::statusFile() const {
    return directory / "info";
}

void World::reset() {
    *shared = State();
    dir::make(dir::base());
    for (std::size_t index = 0; index < volumeCount; ++index) {
        if (file::exists(mountPointOf(index))) {
            dir::remove(mountPointOf(index));
        }
        dir::make(mountPointOf(index));
        for (std::uint32_t& unit : volume(index).content) {
            unit = newStamp();
        }
    }
    for (std::int32_t minor = 0; minor < static_cast<std::int32_t>(volumeCount); ++minor) {
        if (file::exists(reloadScriptOf(minor))) {
            file::remove(reloadScriptOf(minor));
        }
    }
}

} // namespace agent::model
