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

/// The driver's operations, in an exclusive session: the constructor takes the driver's lock and tidies up
/// after an interrupted operation; the destructor releases the lock. An operation has finished when it
/// returns.
///
/// Owns:    the driver's lock and the table of devices.
/// Threads: one at a time; objects of other threads and processes wait for the lock, or fail with EWOULDBLOCK
///          (see Busy).
/// Fails:   std::system_error; no live device has changed then, but leftovers of an earlier tracking of the
///          volume may have been removed.
class Driver {
public:
    explicit Driver(Busy busy = Busy::wait);

    void setupSnapshot(std::uint32_t minor, const std::string& blockDevice, const std::string& cowPath,
                       std::uint64_t cowMebibytes, std::uint64_t cacheSize);
    void transitionSnapshot(std::uint32_t minor, const std::string& cowPath, std::uint64_t cowMebibytes);
    void transitionIncremental(std::uint32_t minor);
    /// Reloads a device from before the machine was restarted, in the mode that it had.
    void reload(Mode mode, std::uint32_t minor, const std::string& blockDevice, const std::string& cowFile,
                std::uint64_t cacheSize);
    void reconfigure(std::uint32_t minor, std::uint64_t cacheSize);
    void destroy(std::uint32_t minor);
    /// Throws unless the snapshot has been consistent ever since it was taken.
    void checkSnapshot(std::uint32_t minor) const;
    /// The bytes that a first snapshot takes on its volume, besides the CoW file.
    [[nodiscard]] std::uint64_t roomBeyondCowFile(const std::string& blockDevice) const;
    /// Forgets the devices that haven't been reloaded since the machine was restarted.
    void forgetAsleep();

private:
    void startSession();
    void commit(const Table& next);
    void replace(const Device& device);
    void reconcile();
    template <class Work>
    void reconcileOnFailure(const Work& work);

    [[nodiscard]] const Device& require(std::uint32_t minor, Mode mode) const;
    void requireFree(std::uint32_t minor) const;
    void requireUntracked(const Volume& volume) const;
    [[nodiscard]] std::vector<IBackEnd*> backEnds();
    IBackEnd& backEndOf(const Device& device);
    bool takeFirstByMapper(const SnapshotPlan& plan, Device& device);
    void forgetAsleepLayers(const Volume& volume, const PathOnVolume& cow);
    static void removeLockedPredecessor(const SnapshotPlan& plan);
    void recordUnfinished(const SnapshotPlan& plan, const Device& device);
    void takeFirst(IBackEnd& backEnd, const SnapshotPlan& plan, Device device);

    StateStore store;
    Table table;
    CaptureBackEnd capture;
    MapperBackEnd mapper;
};

} // namespace tolvubd
