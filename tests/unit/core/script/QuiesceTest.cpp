#include "core/script/Quiesce.h"

#include "common/File.h"
#include "core/script/CommandUtility.h"
#include "core/script/LineSplitter.h"
#include "support/ProcessState.h"
#include "support/RecordingLogger.h"
#include "support/TestDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <iomanip>
#include <sstream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace agent::core::script {
namespace {

using info::level::debug;
using info::level::error;
using std::chrono::steady_clock;
using test::RecordingLogger;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr std::chrono::seconds generous(10);

Path scriptDirectory() {
    return dir::base() / "pps";
}

/// Installs an executable shell script in the agent's script directory.
std::string install(const std::string& name, const std::string& text) {
    const std::string path = scriptDirectory() / name;
    test::writeFile(path, "#!/bin/sh\n" + text);
    EXPECT_EQ(::chmod(path.c_str(), 0755), 0);
    return path;
}

std::size_t highestMemoryKiB() {
    ::rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return static_cast<std::size_t>(usage.ru_maxrss);
}

class RealScripts : public testing::Test {
protected:
    void SetUp() override { dir::make(scriptDirectory()); }
    void TearDown() override {
        dir::remove(scriptDirectory());
        EXPECT_TRUE(test::hasNoChildren());
        EXPECT_EQ(test::openDescriptors(), descriptors);
    }

    /// Runs a script; returns the lines of its output that were logged. Fails the test unless the start and
    /// end are logged around them.
    std::vector<std::string> run(const std::string& script, std::uint32_t timeoutSeconds, bool isPre = true) {
        log.clear();
        quiesce.runScript(script, timeoutSeconds, isPre);
        const std::string path =
            script.find('/') == std::string::npos ? (scriptDirectory() / script).str() : script;
        const std::string mode = isPre ? "PRE" : "POST";
        const auto lines = log.lines();
        const RecordingLogger::Line first{info::level::info, "The following " + mode +
                                                                 " quiescing script command will be run: \"" +
                                                                 path + " " + mode + "\""};
        const RecordingLogger::Line last{info::level::info, "Done executing quiescing script '" + path + "'"};
        if (lines.size() < 2) {
            ADD_FAILURE() << "too few lines";
            return {};
        }
        EXPECT_EQ(lines.front(), first);
        EXPECT_EQ(lines.back(), last);
        std::vector<std::string> output;
        for (std::size_t line = 1; line + 1 < lines.size(); ++line) {
            EXPECT_EQ(lines[line].level, info::level::info);
            EXPECT_TRUE(lines[line].text.starts_with(path + ": ")) << lines[line].text;
            output.push_back(lines[line].text.substr(path.size() + 2));
        }
        return output;
    }

    /// The message with which a script is refused. Checks that the script didn't run.
    std::string refusal(const std::string& script) {
        log.clear();
        std::string text = "nothing thrown";
        try {
            quiesce.runScript(script, 20, true);
        } catch (const std::runtime_error& error) {
            text = error.what();
        }
        EXPECT_THAT(log.lines(), IsEmpty());
        return text;
    }

    static std::string openTo(const std::string& script, const std::string& place, uid_t owner,
                              ::mode_t mode) {
        std::ostringstream text;
        text << "Quiesce script \"" << script << "\" refused: others than root can write \"" << place
             << "\" (owner " << owner << ", mode " << std::oct << std::setw(4) << std::setfill('0') << mode
             << ")";
        return text.str();
    }

    std::size_t descriptors = test::openDescriptors();
    RecordingLogger log;
    CommandUtility utility;
    Quiesce quiesce{log.logger, utility};
};

TEST_F(RealScripts, OnlyFilesAreOffered) {
    const auto path = [](const std::string& name) { return (scriptDirectory() / name).str(); };
    install("b", "");
    install("B", "");
    install("10", "");
    install("9", "");
    test::writeFile(path("not executable"), "");
    dir::make(path("directory"));
    EXPECT_EQ(::symlink("b", path("link").c_str()), 0);
    EXPECT_EQ(::symlink("directory", path("link to directory").c_str()), 0);
    EXPECT_EQ(::symlink("nothing", path("dangling").c_str()), 0);
    EXPECT_EQ(::symlink("circle", path("circle").c_str()), 0);
    EXPECT_THAT(quiesce.getScripts(scriptDirectory()),
                ElementsAre("10", "9", "B", "b", "link", "not executable"));
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(RealScripts, ADirectoryOfScriptsMayBeEmptyOrALink) {
    EXPECT_THAT(quiesce.getScripts(scriptDirectory()), IsEmpty());
    EXPECT_THAT(log.lines(), IsEmpty());
    const test::TestDirectory other;
    test::writeFile(other / "script", "");
    EXPECT_EQ(::symlink(other.path().str().c_str(), (scriptDirectory() / "link").str().c_str()), 0);
    EXPECT_THAT(quiesce.getScripts(scriptDirectory() / "link"), ElementsAre("script"));
}

TEST_F(RealScripts, NoDirectoryOffersNoScripts) {
    const std::string file = install("file", "");
    EXPECT_THAT(quiesce.getScripts("/nowhere"), IsEmpty());
    EXPECT_THAT(quiesce.getScripts(file), IsEmpty());
    EXPECT_THAT(log.lines(),
                ElementsAre(RecordingLogger::Line{debug, "Quiesce/PPS directory /nowhere not found"},
                            RecordingLogger::Line{debug, "Quiesce/PPS directory " + file + " not found"}));
}

TEST_F(RealScripts, ScriptGetsTheMode) {
    install("script", "echo \"$#\" \"$1\"\n");
    EXPECT_THAT(run("script", 20, true), ElementsAre("1 PRE"));
    EXPECT_THAT(run("script", 20, false), ElementsAre("1 POST"));
}

TEST_F(RealScripts, NameWithASlashIsAPath) {
    dir::make(scriptDirectory() / "other");
    install("other/script", "echo elsewhere\n");
    EXPECT_THAT(run(scriptDirectory() / "other/script", 20), ElementsAre("elsewhere"));
}

TEST_F(RealScripts, ScriptThatOthersCouldHaveWrittenIsRefused) {
    constexpr uid_t nobody = 65534;
    const std::string path = install("script", "echo ran\n");
    for (const ::mode_t mode : {0775U, 0757U, 0777U}) {
        ASSERT_EQ(::chmod(path.c_str(), mode), 0);
        EXPECT_EQ(refusal("script"), openTo(path, path, 0, mode));
    }
    ASSERT_EQ(::chmod(path.c_str(), 0755), 0);
    ASSERT_EQ(::chown(path.c_str(), nobody, nobody), 0);
    EXPECT_EQ(refusal("script"), openTo(path, path, nobody, 0755));
    ASSERT_EQ(::chown(path.c_str(), 0, nobody), 0); // a group without write permission doesn't matter
    EXPECT_THAT(run("script", 20), ElementsAre("ran"));
}

TEST_F(RealScripts, ScriptInAPlaceThatOthersCouldHaveChangedIsRefused) {
    constexpr uid_t nobody = 65534;
    const std::string place = scriptDirectory() / "place";
    dir::make(place + "/below");
    const std::string path = install("place/below/script", "echo ran\n");
    for (const ::mode_t mode : {0777U, 01777U, 0775U}) {
        ASSERT_EQ(::chmod(place.c_str(), mode), 0);
        EXPECT_EQ(refusal(path), openTo(path, place, 0, mode));
        EXPECT_EQ(refusal(place + "/./below/../below//script"),
                  openTo(place + "/./below/../below//script", place, 0, mode));
    }
    ASSERT_EQ(::chmod(place.c_str(), 0755), 0);
    EXPECT_THAT(run(path, 20), ElementsAre("ran"));
    ASSERT_EQ(::chown(place.c_str(), nobody, 0), 0);
    EXPECT_EQ(refusal(path), openTo(path, place, nobody, 0755));
}

TEST_F(RealScripts, ALinkIsAsGoodAsTheWayToWhatItLeadsTo) {
    const std::string open = scriptDirectory() / "open";
    const std::string link = scriptDirectory() / "link";
    dir::make(open);
    install("open/script", "echo ran\n");
    install("script", "echo ran\n");
    ASSERT_EQ(::chmod(open.c_str(), 0777), 0);
    for (const std::string target : {"open/script", "./open/../script", "/etc/tolvu/bek/pps/open/script"}) {
        ASSERT_EQ(::symlink(target.c_str(), link.c_str()), 0);
        EXPECT_EQ(refusal("link"), openTo(link, open, 0, 0777)) << target;
        file::remove(link);
    }
    ASSERT_EQ(::symlink("script", link.c_str()), 0);
    EXPECT_THAT(run("link", 20), ElementsAre("ran"));
}

TEST_F(RealScripts, ACircleOfLinksEnds) {
    const std::string circle = scriptDirectory() / "circle";
    ASSERT_EQ(::symlink("circle", circle.c_str()), 0);
    EXPECT_EQ(refusal("circle"), "Quiesce script \"" + circle + "\" refused: others than root can write \"" +
                                     circle + "\" (too many links)");
}

TEST_F(RealScripts, NameWithANulIsRefused) {
    const std::string path = install("script", "echo ran\n");
    EXPECT_EQ(refusal(std::string("script\0.sh", 10)),
              "Quiesce script \"script\" refused: its name goes on behind a NUL byte");
    EXPECT_EQ(refusal(path + '\0'),
              "Quiesce script \"" + path + "\" refused: its name goes on behind a NUL byte");
}

TEST_F(RealScripts, MissingScriptIsAnError) {
    const std::string path = scriptDirectory() / "missing";
    try {
        quiesce.runScript("missing", 20, true);
        ADD_FAILURE() << "nothing thrown";
    } catch (const std::runtime_error& error) {
        EXPECT_EQ(std::string(error.what()),
                  "Quiesce script \"" + path + "\" not found; it may have been moved or deleted");
    }
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(RealScripts, WhatTheShellCannotRunIsNoError) {
    const std::string plain = scriptDirectory() / "plain";
    test::writeFile(plain, "#!/bin/sh\n");
    const std::string dangling = scriptDirectory() / "dangling";
    EXPECT_EQ(::symlink("nothing", dangling.c_str()), 0);
    const std::string directory = scriptDirectory() / "directory";
    dir::make(directory);
    // Shells word the error differently, and some print it twice.
    EXPECT_THAT(run("plain", 20), Contains(HasSubstr(plain)));
    EXPECT_THAT(run("dangling", 20), Contains(HasSubstr(dangling)));
    EXPECT_THAT(run("directory", 20), Contains(HasSubstr(directory)));
}

TEST_F(RealScripts, FailingScriptIsNoError) {
    install("script", "echo before\nexit 3\n");
    EXPECT_THAT(run("script", 20), ElementsAre("before"));
}

TEST_F(RealScripts, OutputAndErrorsAreLoggedLineByLine) {
    install("script",
            "printf on; sleep 0.1; printf 'e\\ntw' >&2; sleep 0.1; printf 'o\\n\\n'; printf rest\n");
    EXPECT_THAT(run("script", 20), ElementsAre("one", "two", ""));
}

TEST_F(RealScripts, BackslashJoinsLines) {
    install("script", "printf 'a\\\\'; sleep 0.1; printf '\\nb\\n'\n");
    EXPECT_THAT(run("script", 20), ElementsAre("a\\\nb"));
}

TEST_F(RealScripts, NulByteEndsWhatIsLoggedOfItsLine) {
    install("script", "printf 'a\\000b\\nc\\n'\n");
    EXPECT_THAT(run("script", 20), ElementsAre("a", "c"));
}

/// Whether the process whose PID a script wrote to a file is gone, zombies included.
bool isGone(const std::string& pidPath) {
    const std::string pid = test::readFile(pidPath);
    return !pid.empty() && ::kill(std::stoi(pid), 0) == -1 && errno == ESRCH;
}

TEST_F(RealScripts, SilentScriptIsKilledAfterItsTime) {
    const std::string pid = scriptDirectory() / "pid";
    install("script", "echo $$ >" + pid + "\nwhile :; do read -r line </dev/zero; done\n");
    const auto begin = steady_clock::now();
    EXPECT_THAT(run("script", 1), IsEmpty());
    EXPECT_GE(steady_clock::now() - begin, std::chrono::seconds(1));
    EXPECT_LT(steady_clock::now() - begin, generous);
    EXPECT_TRUE(isGone(pid));
}

TEST_F(RealScripts, TimeIsForTheWholeRun) {
    install("script", "while :; do echo tick; sleep 0.1; done\n");
    const auto begin = steady_clock::now();
    EXPECT_THAT(run("script", 1), testing::Contains("tick"));
    EXPECT_LT(steady_clock::now() - begin, generous);
}

TEST_F(RealScripts, NoTimeKillsAScriptRightAway) {
    const std::string mark = scriptDirectory() / "mark";
    install("script", "sleep 2\necho late >" + mark + "\n");
    const auto begin = steady_clock::now();
    EXPECT_THAT(run("script", 0), IsEmpty());
    EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds(1));
    EXPECT_FALSE(file::exists(mark));
}

TEST_F(RealScripts, TimeEndsTheWaitForAChildThatHoldsTheOutput) {
    install("script", "echo text\nsleep 5 &\n");
    const auto begin = steady_clock::now();
    EXPECT_THAT(run("script", 1), ElementsAre("text"));
    EXPECT_GE(steady_clock::now() - begin, std::chrono::seconds(1));
    EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds(4));
}

TEST_F(RealScripts, ScriptThatClosesItsOutputEndsTheRunAndIsKilled) {
    const std::string pid = scriptDirectory() / "pid";
    install("script", "echo $$ >" + pid + "\necho text\nexec >&- 2>&-\nexec sleep 20\n");
    const auto begin = steady_clock::now();
    EXPECT_THAT(run("script", 20), ElementsAre("text"));
    EXPECT_LT(steady_clock::now() - begin, generous);
    EXPECT_TRUE(isGone(pid));
}

TEST_F(RealScripts, TimeHoldsForOutputThatEndsOnAFullReadStep) {
    install("script", "printf '%0256d' 7\nexec sleep 20\n");
    const auto begin = steady_clock::now();
    EXPECT_THAT(run("script", 1), IsEmpty());
    EXPECT_LT(steady_clock::now() - begin, generous);
}

TEST_F(RealScripts, TimeHoldsForOutputWithoutPause) {
    install("script", "exec cat /dev/zero\n");
    const auto begin = steady_clock::now();
    EXPECT_THAT(run("script", 1), IsEmpty());
    EXPECT_THAT(run("script", 0), IsEmpty());
    EXPECT_LT(steady_clock::now() - begin, generous);
}

TEST_F(RealScripts, HugeLineIsReadInBoundedMemoryAndLoggedInPart) {
    install("script", "head -c 104857600 /dev/zero | tr '\\000' x\necho\necho after\n");
    const std::size_t before = highestMemoryKiB();
    const auto begin = steady_clock::now();
    EXPECT_THAT(run("script", 200), ElementsAre(std::string(LineSplitter::maxLineBytes, 'x'), "after"));
    EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds(60));
    EXPECT_LT(highestMemoryKiB() - before, 32U * 1024U);
}

TEST_F(RealScripts, IgnoredSigchldStaysIgnored) {
    const test::ScopedDisposition ignored(SIGCHLD, SIG_IGN);
    install("script", "true &\nwait $!\necho $?\nsleep 0.2\necho end\n");
    EXPECT_THAT(run("script", 20), ElementsAre("0", "end"));
    EXPECT_EQ(test::disposition(SIGCHLD).sa_handler, SIG_IGN);
}

} // namespace
} // namespace agent::core::script
