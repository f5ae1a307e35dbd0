#include "info/log/DateDecorator.h"
#include "info/log/DecoratedPrinter.h"
#include "info/log/FailsafePrinter.h"
#include "info/log/FilteredPrinter.h"
#include "info/log/MultiPrinter.h"
#include "info/log/ScreenPrinter.h"
#include "info/log/TagDecorator.h"

#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <functional>
#include <unistd.h>

namespace agent::info {
namespace {

/// Collects the messages that it gets, as "level:message ".
class Sink {
public:
    PrinterFunction function() {
        return [this](const std::string& message, int level, LogTime) {
            printed += std::to_string(level) + ":" + message + " ";
        };
    }
    FalliblePrinterFunction answering(bool answer) {
        return [this, answer](const std::string& message, int, LogTime) {
            printed += message + (answer ? "+ " : "- ");
            return answer;
        };
    }
    std::string printed;
};

class Printers : public testing::Test {
protected:
    Sink sink;
    const LogTime now = std::chrono::system_clock::now();
};

TEST_F(Printers, MultiPrinterCallsAllInOrder) {
    MultiPrinter printer({sink.function(), {}, sink.function()});
    printer.print("a", 2, now);
    EXPECT_EQ(sink.printed, "2:a 2:a ");
}

TEST_F(Printers, FailsafePrinterStopsAtTheFirstSuccess) {
    FailsafePrinter printer({sink.answering(false), {}, sink.answering(true), sink.answering(true)});
    printer.print("a", 2, now);
    EXPECT_EQ(sink.printed, "a- a+ ");
}

TEST_F(Printers, FailsafePrinterReportsWhenNoneSucceeds) {
    const std::string report = "~~Logging Error~~ All printers in sequence failed to print log message\n";
    testing::internal::CaptureStderr();
    FailsafePrinter({sink.answering(false)}).print("a", 2, now);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), report);
    testing::internal::CaptureStderr();
    FailsafePrinter({}).print("a", 2, now);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), report);
}

TEST_F(Printers, FilteredPrinterAsksItsFilter) {
    FilteredPrinter printer([](const std::string&, int level, LogTime) { return level < 2; },
                            sink.function());
    printer.print("a", 1, now);
    printer.print("b", 2, now);
    EXPECT_EQ(sink.printed, "1:a ");
}

TEST_F(Printers, FilteredPrinterWithoutAFilterIsAnError) {
    FilteredPrinter printer({}, sink.function());
    EXPECT_THROW(printer.print("a", 1, now), std::bad_function_call);
}

TEST_F(Printers, DecoratedPrinterHandsOnTheDecoratedText) {
    TagDecorator tag;
    DecoratedPrinter(tag, sink.function()).print("a", 0, now);
    EXPECT_EQ(sink.printed, "0:[CRITICAL:] a ");
    EXPECT_NO_THROW(DecoratedPrinter(tag, {}).print("a", 0, now));
}

TEST_F(Printers, ScreenPrinterAddsNothing) {
    testing::internal::CaptureStdout();
    ScreenPrinter().print("a\nb", 0, now);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "a\nb");
}

/// Standard output is a pipe whose reader has closed it.
class BrokenScreen : public testing::Test {
protected:
    void SetUp() override {
        std::array<int, 2> ends{};
        ASSERT_EQ(::pipe(ends.data()), 0);
        ::close(ends[0]);
        std::fflush(stdout);
        saved = ::dup(STDOUT_FILENO);
        ::dup2(ends[1], STDOUT_FILENO);
        ::close(ends[1]);
    }
    void TearDown() override {
        std::fflush(stdout);
        ::dup2(saved, STDOUT_FILENO);
        ::close(saved);
        std::clearerr(stdout);
    }
    int saved = -1;
};

TEST_F(BrokenScreen, StopsNothing) {
    // SIGPIPE has its default action: an unguarded write would kill this program.
    ASSERT_EQ(std::signal(SIGPIPE, SIG_DFL), SIG_DFL);
    for (int i = 0; i < 3; ++i) {
        ScreenPrinter().print("lost\n", 0, {});
    }
    EXPECT_EQ(std::ferror(stdout), 0);
}

} // namespace
} // namespace agent::info
