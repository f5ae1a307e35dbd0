#include "support/BlockingCall.h"
#include "unit/core/backup/BackupSignalsFixture.h"

namespace agent::core::backup {
namespace {

/// Two runs at once, as when a cancelled backup winds down while a new one starts.
class OverlappedRuns : public BackupSignals {
protected:
    OverlappedRuns() {
        first.start(firstBackup, nullptr);
        firstCall.waitUntilEntered();
        second.start(secondBackup, nullptr);
        secondCall.waitUntilEntered();
    }

    const std::map<int, std::pair<sighandler_t, int>> before = dispositions();
    test::BlockingCall firstCall;
    test::BlockingCall secondCall;
    std::shared_ptr<FakeBackup> firstBackup = std::make_shared<FakeBackup>("first", std::ref(firstCall));
    std::shared_ptr<FakeBackup> secondBackup = std::make_shared<FakeBackup>("second", std::ref(secondCall));
    BackupThread first{log.logger};
    BackupThread second{log.logger};
};

TEST_F(OverlappedRuns, LaterOneOwnsTheSignals) {
    ::raise(SIGPIPE);
    EXPECT_TRUE(test::eventually([&] { return secondBackup->isCancelled(); }));
    EXPECT_FALSE(firstBackup->isCancelled());
    firstCall.release();
    secondCall.release();
}

TEST_F(OverlappedRuns, DispositionsComeBackWhenTheFirstEndsFirst) {
    firstCall.release();
    first.wait();
    EXPECT_EQ(dispositions(), before);
    secondCall.release();
    second.wait();
    EXPECT_EQ(dispositions(), before);
}

TEST_F(OverlappedRuns, DispositionsComeBackWhenTheSecondEndsFirst) {
    secondCall.release();
    second.wait();
    EXPECT_EQ(dispositions(), before);
    firstCall.release();
    first.wait();
    EXPECT_EQ(dispositions(), before);
}

TEST_F(OverlappedRuns, DispositionsComeBackWhenAThirdStartsBetween) {
    test::BlockingCall thirdCall;
    const auto thirdBackup = std::make_shared<FakeBackup>("third", std::ref(thirdCall));
    BackupThread third(log.logger);
    firstCall.release();
    first.wait();
    third.start(thirdBackup, nullptr);
    thirdCall.waitUntilEntered();
    EXPECT_TRUE(isCaught(SIGPIPE));
    secondCall.release();
    second.wait();
    thirdCall.release();
    third.wait();
    EXPECT_EQ(dispositions(), before);
}

} // namespace
} // namespace agent::core::backup
