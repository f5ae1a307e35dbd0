#pragma once

#include "zephane/zephaned/ChildProcess.h"
#include "zephane/zephaned/IEngine.h"
#include "zephane/zephaned/LineLimit.h"
#include "zephane/zephaned/Log.h"

#include <asio/any_io_executor.hpp>
#include <asio/awaitable.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>
#include <asio/strand.hpp>
#include <memory>
#include <string>
#include <vector>

namespace zephane {

/// One nbdkit process that serves an image on a Unix socket. Its output goes to the log, with the image's
/// name.
/// Owns:    the process and its socket; an engine keeps itself alive until the process has ended.
/// Threads: any; but the thread that calls `start` must outlive the process (see ChildProcess).
/// Fails:   `start` throws std::system_error. The log reports a process that ends although `stop` wasn't
///          called.
///
/// `stop` sends SIGTERM, and SIGKILL if the process is still there after five seconds.
class Engine : public IEngine, public std::enable_shared_from_this<Engine> {
public:
    struct Command {
        std::string program;                ///< the path of nbdkit
        std::vector<std::string> arguments; ///< for the plugin and its filters
        std::string socket;                 ///< a path that doesn't exist yet
    };

    static std::shared_ptr<Engine> start(const asio::any_io_executor& executor, const Command& command,
                                         std::string image, const Log& log);

    [[nodiscard]] const std::string& socket() const override { return socketPath; }
    [[nodiscard]] bool hasEnded() const override { return process.hasEnded(); }
    void stop() override;

private:
    struct Pipe;

public:
    /// For `start`, through std::make_shared.
    Engine(const asio::any_io_executor& executor, const Command& command, std::string image, const Log& log,
           Pipe pipe);

private:
    void run();
    asio::awaitable<void> watch();
    asio::awaitable<void> readOutput();
    void terminate();
    void send(int signal);
    [[nodiscard]] bool wasAsked(const ProcessEnd& how) const;
    void say(const std::string& line);

    // Only the strand uses the members that aren't const.
    const asio::strand<asio::any_io_executor> strand;
    const std::string socketPath;
    const std::string image;
    const Log& log;
    const ChildProcess process;
    asio::posix::stream_descriptor end;    // a pidfd of the process, to wait for its end
    asio::posix::stream_descriptor output; // the process's output
    asio::steady_timer killTimer;
    asio::steady_timer drainTimer;
    LineLimit limit;
    int sent = 0; ///< the last signal sent to end the process
};

} // namespace zephane
