#pragma once

#include "IBackEnd.h"
#include "StateStore.h"
#include "Table.h"
#include "Volume.h"
#include "capture/CaptureBackEnd.h"
#include "mapper/MapperBackEnd.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tolvubd {

/// The operations. An object is one turn: it waits for the others, tidies up after one that didn't end, and
/// has the driver for itself until it goes. Every operation is done when it returns, and has changed nothing
/// when it throws std::system_error.
class Driver {
public:
    explicit Driver(Busy busy = Busy::wait);

    void setupSnapshot(std::uint32_t minor, const std::string& blockDevice, const std::string& cowPath,
                       std::uint64_t cowMebibytes, std::uint64_t cacheSize);
    void transitionSnapshot(std::uint32_t minor, const std::string& cowPath, std::uint64_t cowMebibytes);
    void transitionIncremental(std::uint32_t minor);
    /// Gives a device of an earlier run of the machine back, in the mode that it had.
    void reload(Mode mode, std::uint32_t minor, const std::string& blockDevice, const std::string& cowFile,
                std::uint64_t cacheSize);
    void reconfigure(std::uint32_t minor, std::uint64_t cacheSize);
    void destroy(std::uint32_t minor);
    /// Fails unless the device has shown one moment ever since its snapshot was taken.
    void checkSnapshot(std::uint32_t minor) const;
    /// Bytes that a first snapshot of a volume takes on it beyond the CoW file.
    [[nodiscard]] std::uint64_t roomBeyondCowFile(const std::string& blockDevice) const;
    /// Forgets the devices that no reload has given back since the machine was started.
    void forgetAsleep();

private:
    void startSession();
    void commit(const Table& next);
    void replace(const Device& device);
    void tidy();
    template <class Work>
    void undoneOnFailure(const Work& work);

    [[nodiscard]] const Device& require(std::uint32_t minor, Mode mode) const;
    void requireFree(std::uint32_t minor) const;
    void requireUntracked(const Volume& volume) const;
    [[nodiscard]] std::vector<IBackEnd*> backEnds();
    IBackEnd& backEndOf(const Device& device);
    bool takeFirstByMapper(const SnapshotPlan& plan, Device& device);
    void forgetAsleepLayers(const Volume& volume, const PathOnVolume& cow);
    static void makeWayFor(const SnapshotPlan& plan);
    void begin(const SnapshotPlan& plan, const Device& device);
    void takeFirst(IBackEnd& backEnd, const SnapshotPlan& plan, Device device);

    StateStore store;
    Table table;
    CaptureBackEnd capture;
    MapperBackEnd mapper;
};

} // namespace tolvubd
