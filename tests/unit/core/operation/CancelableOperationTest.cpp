#include "core/operation/CancelableOperation.h"

#include "core/operation/NeverCancel.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>
#include <type_traits>

namespace agent::core {
namespace {

using cancel_op = CancelableOperation::cancel_op;

static_assert(!std::is_base_of_v<std::exception, cancel_op>);

TEST(CancelableOperation, RunsToTheEndWhenNobodyCancels) {
    CancelableOperation operation;
    int checks = 0;
    EXPECT_TRUE(operation.run([&](ICancel& cancel) {
        for (; checks < 3; ++checks) {
            cancel.check();
        }
    }));
    EXPECT_EQ(checks, 3);
    EXPECT_FALSE(operation.isCancelled());
}

TEST(CancelableOperation, StopsAtTheNextCheck) {
    CancelableOperation operation;
    bool reached = false;
    EXPECT_FALSE(operation.run([&](ICancel& cancel) {
        cancel.check();
        operation.cancel();
        reached = true; // cancelling alone interrupts nothing
        cancel.check();
        FAIL() << "ran on after a cancelled check";
    }));
    EXPECT_TRUE(reached);
    EXPECT_TRUE(operation.isCancelled());
}

TEST(CancelableOperation, CancelBeforeRunStopsAtTheFirstCheck) {
    CancelableOperation operation;
    operation.cancel();
    bool called = false;
    EXPECT_FALSE(operation.run([&](ICancel& cancel) {
        called = true;
        cancel.check();
        FAIL() << "ran on after a cancelled check";
    }));
    EXPECT_TRUE(called);
}

TEST(CancelableOperation, ResetForgetsAnEarlierCancel) {
    CancelableOperation operation;
    operation.cancel();
    operation.reset();
    EXPECT_FALSE(operation.isCancelled());
    EXPECT_TRUE(operation.run([](ICancel& cancel) { cancel.check(); }));
}

TEST(CancelableOperation, CancelledFunctionThatNeverChecksCounts) {
    CancelableOperation operation;
    operation.cancel();
    EXPECT_TRUE(operation.run([](ICancel&) {}));
}

TEST(CancelableOperation, OtherExceptionsPassThrough) {
    CancelableOperation operation;
    EXPECT_THROW(operation.run([](ICancel&) { throw std::runtime_error("disk"); }), std::runtime_error);
    EXPECT_THROW(operation.run([](ICancel&) { throw 7; }), int);
}

TEST(CancelableOperation, HandlersForExceptionsDoNotSwallowACancel) {
    CancelableOperation operation;
    operation.cancel();
    bool swallowed = false;
    EXPECT_FALSE(operation.run([&](ICancel& cancel) {
        try {
            cancel.check();
        } catch (const std::exception&) {
            swallowed = true;
        }
    }));
    EXPECT_FALSE(swallowed);
}

TEST(CancelableOperation, PollIsCalledBeforeTheFlagIsRead) {
    int polls = 0;
    CancelableOperation* self = nullptr;
    CancelableOperation operation([&] {
        if (++polls == 2) {
            self->cancel();
        }
    });
    self = &operation;
    EXPECT_FALSE(operation.run([&](ICancel& cancel) {
        cancel.check();
        cancel.check();
        FAIL() << "the poll's own cancel was not seen";
    }));
    EXPECT_EQ(polls, 2);
}

TEST(CancelableOperation, CancelFromAnotherThreadIsSeen) {
    CancelableOperation operation;
    std::atomic<bool> running = false;
    std::thread canceller([&] {
        while (!running) {
            std::this_thread::yield();
        }
        operation.cancel();
    });
    EXPECT_FALSE(operation.run([&](ICancel& cancel) {
        running = true;
        for (;;) {
            cancel.check();
        }
    }));
    canceller.join();
}

TEST(NeverCancel, NeverThrows) {
    NeverCancel cancel;
    EXPECT_NO_THROW(cancel.check());
}

} // namespace
} // namespace agent::core
