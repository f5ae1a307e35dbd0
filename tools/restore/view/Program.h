#pragma once

#include "os/FileDescriptor.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

/// Programs that do what bek-restore doesn't do itself: serve, mount, check, copy.
namespace restore::view {

/// What is to be started, and how. Nothing is read from standard input.
struct Start {
    // GCC wants each member that may be left out to have a value.
    // NOLINTBEGIN(readability-redundant-member-init)
    std::vector<std::string> command;                               ///< found on the system's own paths
    std::vector<std::pair<std::string, std::string>> environment{}; ///< what it gets beside ours
    int output = -1;           ///< takes standard output and standard error; nobody does if there is none
    int kept = -1;             ///< a descriptor that it goes on holding
    bool endsWithUs = false;   ///< even if this process is killed
    bool isDetached = false;   ///< not reached by what is typed at our terminal
    bool hasOwnMounts = false; ///< what it mounts is seen by nobody else
    std::optional<pid_t> mountsOf{}; ///< it sees, and adds to, the mounts of this process
    // NOLINTEND(readability-redundant-member-init)
};

/// A program that runs beside ours.
/// Owns:    the process: it is told to end with the object, and killed if it takes longer than ten seconds.
/// Threads: one at a time; started by a thread that lasts as long as the program, if that `endsWithUs`.
/// Fails:   by std::runtime_error, of which one says that there is no such program (ProgramMissing).
class Program {
public:
    explicit Program(const Start& start);
    Program(Program&& other) noexcept;
    Program& operator=(Program&&) = delete;
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;
    ~Program();

    [[nodiscard]] pid_t pid() const { return id; }
    /// How it has ended; nothing while it runs. As the shell has it: 128 and more for a signal.
    std::optional<int> status();
    /// Waits for its end; nothing if that takes longer.
    std::optional<int> wait(std::chrono::milliseconds limit);
    /// Tells it to end, and sees to it that it does.
    void end();
    void kill();
    /// It goes on without us.
    void release() { id = -1; }

private:
    static pid_t start(const Start& start);

    pid_t id;
    std::optional<int> ended;
};

class ProgramMissing : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct Outcome {
    int status = 0;
    std::string output; ///< standard output and standard error; no more than the first 256 KiB of it
};

/// Runs a program to its end, and kills it if it takes longer than `limit`, which is std::runtime_error then.
/// It ends with us, but for what it leaves in the background itself. `start.output` is ours to set. `watch`
/// is called a few times a second while it runs.
Outcome runProgram(Start start, std::optional<std::chrono::milliseconds> limit,
                   const std::function<void(pid_t)>& watch = {});

/// The last line of what a program has printed that says something, without control characters.
std::string lastWords(const std::string& output);

} // namespace restore::view
