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

/// External programs for what bek-restore doesn't do itself: serve, mount, check, copy.
namespace restore::view {

/// A program to start, and how to start it. Its standard input is empty.
struct Start {
    // GCC warns of a member that is left out and has no initialiser.
    // NOLINTBEGIN(readability-redundant-member-init)
    std::vector<std::string> command;                               ///< found on the system's own paths
    std::vector<std::pair<std::string, std::string>> environment{}; ///< variables beside the usual ones
    int output = -1;                   ///< receives standard output and standard error; -1 discards them
    int inheritedDescriptor = -1;      ///< a descriptor that the program inherits; -1 for none
    bool endsWithParent = false;       ///< even if this process is killed
    bool isDetached = false;           ///< the keys of our terminal don't reach it
    bool hasOwnMountNamespace = false; ///< runs in a mount namespace of its own
    std::optional<pid_t> mountNamespaceOf{}; ///< runs in the mount namespace of the process with this ID
    // NOLINTEND(readability-redundant-member-init)
};

/// A program that runs as a child process.
/// Owns:    the process: the destructor tells it to end, and kills it after ten seconds.
/// Threads: one at a time. If `endsWithParent`, the thread that starts the program must outlive it.
/// Fails:   throws std::runtime_error; ProgramMissing if there is no such program.
class Program {
public:
    explicit Program(const Start& start);
    Program(Program&& other) noexcept;
    Program& operator=(Program&&) = delete;
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;
    ~Program();

    [[nodiscard]] pid_t pid() const { return id; }
    /// The exit status as in a shell, 128 and more for a signal; nothing while the program runs.
    std::optional<int> status();
    /// Waits for the program's end; returns nothing if it takes longer than `limit`.
    std::optional<int> wait(std::chrono::milliseconds limit);
    /// Asks the program to end, and kills it if it doesn't.
    void end();
    void kill();
    /// Lets the program run on without this object.
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
    std::string output; ///< standard output and standard error, at most the first 256 KiB
};

/// Runs a program to its end. Kills it if it takes longer than `limit`, and throws std::runtime_error then.
/// The program ends with this process, except for what it leaves in the background. Sets `start.output`
/// itself. Calls `watch` a few times a second meanwhile.
Outcome runProgram(Start start, std::optional<std::chrono::milliseconds> limit,
                   const std::function<void(pid_t)>& watch = {});

/// The last line of a program's output that isn't blank, without control characters.
std::string lastOutputLine(const std::string& output);

} // namespace restore::view
