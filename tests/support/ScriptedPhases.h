#pragma once

#include "core/backup/IPhaseFactory.h"

#include <functional>
#include <utility>

namespace agent::test {

/// A phase that does what the test says.
class ScriptedPhase : public core::IPhase {
public:
    explicit ScriptedPhase(std::string name, std::function<void()> action = {})
        : name(std::move(name)), action(std::move(action)) {}

    void execute() override {
        if (action) {
            action();
        }
    }
    [[nodiscard]] std::string getName() const override { return name; }

private:
    std::string name;
    std::function<void()> action;
};

/// A phase factory of which the test says what its phases are and what each of them does, and what happens
/// while they are made. It serves one run at a time; what it has seen is for the thread of that run.
class ScriptedPhaseFactory : public core::backup::IPhaseFactory {
public:
    struct Step {
        std::string name;
        std::function<void()> action = {};
    };

    std::unique_ptr<core::backup::IBackupPhases>
    create(std::shared_ptr<core::backup::IBackupAttributes> /*backupAttributes*/,
           std::shared_ptr<core::backup::ISnapshotAttributes> /*snapshotAttributes*/,
           core::backup::IBackupStatusHandler& runStatus) override {
        call(onCreate);
        status = &runStatus;
        return std::make_unique<Run>(*this);
    }

    std::vector<Step> populate;
    std::vector<Step> transfer;
    std::vector<Step> conclude;
    std::function<void()> onCreate;
    std::function<void()> onPopulate;
    std::function<void()> onTransfer;
    std::function<void()> onConclude;

    core::backup::IBackupStatusHandler* status = nullptr;
    core::backup::BackupSession* session = nullptr;
    core::ICancel* cancel = nullptr;
    std::vector<bool> concluded; ///< The success flag of each run that has come to its conclusion.
    int living = 0;              ///< Runs whose shared state has not been destroyed.

private:
    static void call(const std::function<void()>& function) {
        if (function) {
            function();
        }
    }

    static core::backup::Phases make(const std::vector<Step>& steps) {
        core::backup::Phases phases;
        for (const Step& step : steps) {
            phases.push_back(std::make_unique<ScriptedPhase>(step.name, step.action));
        }
        return phases;
    }

    class Run : public core::backup::IBackupPhases {
    public:
        explicit Run(ScriptedPhaseFactory& factory) : factory(factory) { ++factory.living; }
        Run(const Run&) = delete;
        Run& operator=(const Run&) = delete;
        ~Run() override { --factory.living; }

        core::backup::Phases populate() override {
            call(factory.onPopulate);
            return make(factory.populate);
        }
        core::backup::Phases transfer(core::backup::BackupSession& session, core::ICancel& cancel) override {
            factory.session = &session;
            factory.cancel = &cancel;
            call(factory.onTransfer);
            return make(factory.transfer);
        }
        core::backup::Phases conclude(bool success) override {
            factory.concluded.push_back(success);
            call(factory.onConclude);
            return make(factory.conclude);
        }

    private:
        ScriptedPhaseFactory& factory;
    };
};

} // namespace agent::test
