#pragma once

#include "core/backup/BackupSession.h"
#include "core/backup/IBackup.h"

#include <atomic>
#include <functional>
#include <utility>

namespace agent::test {

/// A backup whose state the test sets and whose run is a function of the test.
class FakeBackup : public core::backup::IBackup {
public:
    explicit FakeBackup(std::string id, std::function<void()> body = {})
        : id(std::move(id)), body(std::move(body)) {}

    [[nodiscard]] std::string getId() const override { return id; }
    void getStatus(core::backup::BackupStatus& out) const override { out.elapsedSeconds = elapsedSeconds; }
    void ping() override { ++pings; }
    [[nodiscard]] bool isActive() const override { return active; }
    [[nodiscard]] bool isFinished() const override { return finished; }
    void cancel() override { ++cancels; }
    [[nodiscard]] bool isCancelled() const override { return cancels > 0; }

    void run(std::unique_ptr<core::backup::BackupSession> given) override {
        session = std::move(given);
        if (body) {
            body();
        }
    }

    double elapsedSeconds = 0;
    std::atomic<bool> active = true;
    std::atomic<bool> finished = false;
    std::atomic<int> pings = 0;
    std::atomic<int> cancels = 0;
    std::unique_ptr<core::backup::BackupSession> session; ///< what run() got

private:
    std::string id;
    std::function<void()> body;
};

} // namespace agent::test
