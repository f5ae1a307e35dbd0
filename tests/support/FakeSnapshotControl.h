#pragma once

#include "core/backup/SnapshotSessionControl.h"
#include "info/BackupableVolume.h"
#include "info/ICowFileSize.h"
#include "info/IDriverController.h"

#include <functional>
#include <vector>

namespace agent::test {

/// Records what a snapshot control was asked to do and holds its answers. Outlives the control.
struct SnapshotScript {
    core::backup::VolumeSnapshotInfos started; ///< the answer to startSnapshots
    core::backup::VolumeSnapshotInfos ended;   ///< the answer to transitionToIncremental
    std::function<void()> onMake;              ///< may throw
    std::function<void()> onStart;             ///< may throw
    std::function<void()> onEnd;               ///< may throw
    std::vector<bool> transitionResults;       ///< the `success` of each transition
    int liveControls = 0;                      ///< how many controls exist
};

/// A snapshot control without a driver.
class FakeSnapshotControl : public core::backup::SnapshotSessionControl {
public:
    FakeSnapshotControl(info::Logger& logger, SnapshotScript& script)
        : SnapshotSessionControl(logger, unused(), nullptr, nullptr), script(script) {
        call(script.onMake);
        ++script.liveControls;
    }
    FakeSnapshotControl(const FakeSnapshotControl&) = delete;
    FakeSnapshotControl& operator=(const FakeSnapshotControl&) = delete;
    FakeSnapshotControl(FakeSnapshotControl&&) = delete;
    FakeSnapshotControl& operator=(FakeSnapshotControl&&) = delete;
    ~FakeSnapshotControl() override { --script.liveControls; }

    core::backup::VolumeSnapshotInfos
    startSnapshots(const Volumes& /*volumes*/, const core::backup::IBackupAttributes& /*attributes*/,
                   const core::backup::ISnapshotAttributes& /*snapshotAttributes*/) override {
        call(script.onStart);
        return script.started;
    }

    core::backup::VolumeSnapshotInfos transitionToIncremental(const Volumes& /*volumes*/,
                                                              bool success) override {
        script.transitionResults.push_back(success);
        call(script.onEnd);
        return script.ended;
    }

private:
    class NoCowFileSize : public info::ICowFileSize {
        std::uint64_t getCowFileSizeMiB(info::Logger& /*logger*/, const std::string& /*uuid*/,
                                        std::uint64_t /*volumeSizeBytes*/,
                                        const std::string& /*fileSystem*/) override {
            return 0;
        }
    };

    static void call(const std::function<void()>& function) {
        if (function) {
            function();
        }
    }

    static info::ICowFileSize& unused() {
        static NoCowFileSize size;
        return size;
    }

    SnapshotScript& script;
};

} // namespace agent::test
