#pragma once

#include "zephane/zephaned/ChildProcess.h"
#include "zephane/zephaned/IBackEnd.h"
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

/// One nbdkit, behind a Unix socket. What it says goes to the log, under the name of the image.
/// Owns:    the process, its socket, and itself until the process has ended.
/// Threads: any; but see ChildProcess for the one that starts it.
/// Fails:   `start` throws std::system_error. A process that ends by itself is logged.
///
/// To stop, it is asked (SIGTERM), and killed if it is still there after five seconds.
class BackEnd : public IBackEnd, public std::enable_shared_from_this<BackEnd> {
public:
    struct Command {
        std::string program;                ///< the path of nbdkit
        std::vector<std::string> arguments; ///< of the plugin and its filters
        std::string socket;                 ///< a path where nothing is yet
    };

    static std::shared_ptr<BackEnd> start(const asio::any_io_executor& executor, const Command& command,
                                          std::string image, const Log& log);

    [[nodiscard]] const std::string& socket() const override { return socketPath; }
    [[nodiscard]] bool hasEnded() const override { return process.hasEnded(); }
    void stop() override;

private:
    struct Pipe;

public:
    /// For `start`.
    BackEnd(const asio::any_io_executor& executor, const Command& command, std::string image, const Log& log,
            Pipe pipe);

private:
    void run();
    asio::awaitable<void> watch();
    asio::awaitable<void> readOutput();
    void terminate();
    void send(int signal);
    [[nodiscard]] bool wasAsked(const ProcessEnd& how) const;
    void say(const std::string& line);

    // What isn't const belongs to the strand.
    const asio::strand<asio::any_io_executor> strand;
    const std::string socketPath;
    const std::string image;
    const Log& log;
    const ChildProcess process;
    asio::posix::stream_descriptor end;    // the process's, for waiting
    asio::posix::stream_descriptor output; // what it prints
    asio::steady_timer killing;
    asio::steady_timer draining;
    LineLimit limit;
    int sent = 0; ///< the last signal that was to end it
};

} // namespace zephane
