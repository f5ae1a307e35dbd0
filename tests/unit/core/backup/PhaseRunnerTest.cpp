#include "core/backup/PhaseRunner.h"

#include "core/operation/CancelableOperation.h"
#include "core/operation/NeverCancel.h"
#include "support/Messages.h"
#include "support/RecordingLogger.h"
#include "support/ScriptedPhase.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

namespace agent::core::backup {
namespace {

using test::ScriptedPhase;
using testing::ElementsAre;
using testing::IsEmpty;
using Line = test::RecordingLogger::Line;

/// Logs each check, and cancels at check number `stopAt`.
class CountedCancel : public ICancel {
public:
    explicit CountedCancel(info::Logger& logger, int stopAt = 0) : logger(logger), stopAt(stopAt) {}

    void check() override {
        logger.log(info::level::debug, "check %d", ++checks);
        if (checks == stopAt) {
            throw CancelableOperation::cancel_op();
        }
    }

private:
    info::Logger& logger;
    int stopAt;
    int checks = 0;
};

class PhaseRunnerTest : public testing::Test {
protected:
    void add(const std::string& name, std::function<void()> action = {}) {
        phases.push_back(std::make_unique<ScriptedPhase>(name, std::move(action)));
    }

    void run(ICancel& cancel) { PhaseRunner(log.logger, phases).run(cancel); }

    test::RecordingLogger log;
    Phases phases;
};

TEST_F(PhaseRunnerTest, RunsInOrderWithACheckBeforeEach) {
    add("First", [&] { log.logger.log(info::level::debug, "working"); });
    add("Second");
    CountedCancel cancel(log.logger);
    run(cancel);
    EXPECT_THAT(log.lines(), ElementsAre(Line{4, "check 1"},                                  //
                                         Line{3, "Beginning execution of the First phase."},  //
                                         Line{4, "working"},                                  //
                                         Line{3, "Finished execution of the First phase."},   //
                                         Line{4, "check 2"},                                  //
                                         Line{3, "Beginning execution of the Second phase."}, //
                                         Line{3, "Finished execution of the Second phase."}));
}

TEST_F(PhaseRunnerTest, CancelledCheckKeepsThePhaseFromBeginning) {
    add("First");
    add("Second", [] { FAIL() << "ran after a cancel"; });
    CountedCancel cancel(log.logger, 2);
    EXPECT_THROW(run(cancel), CancelableOperation::cancel_op);
    EXPECT_FALSE(log.hasPart(3, "Second"));
    EXPECT_EQ(log.lines().back(), (Line{4, "check 2"}));
}

TEST_F(PhaseRunnerTest, FailingPhaseEndsTheRun) {
    add("First", [] { throw std::runtime_error("disk"); });
    add("Second", [] { FAIL() << "ran after a failure"; });
    NeverCancel never;
    EXPECT_EQ(test::messageOf<std::runtime_error>([&] { run(never); }), "disk");
    EXPECT_THAT(log.lines(), ElementsAre(Line{3, "Beginning execution of the First phase."}));
}

TEST_F(PhaseRunnerTest, NothingToRunIsNotEvenAReasonToCheck) {
    CountedCancel cancel(log.logger, 1);
    EXPECT_NO_THROW(run(cancel));
    EXPECT_THAT(log.lines(), IsEmpty());
}

} // namespace
} // namespace agent::core::backup
