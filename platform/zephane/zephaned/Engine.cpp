#include "zephane/zephaned/Engine.h"

#include <algorithm>
#include <array>
#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/post.hpp>
#include <asio/redirect_error.hpp>
#include <asio/use_awaitable.hpp>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <span>
#include <system_error>
#include <unistd.h>

namespace zephane {

namespace {

constexpr std::chrono::seconds stopTime{5};
/// For the output from before the process's end. The process's own children may keep the pipe open, so this
/// is limited.
constexpr std::chrono::seconds drainTime{1};
/// The pause between checks whether a process that has ended can be reaped.
constexpr std::chrono::milliseconds reapRetryPause{100};
constexpr std::size_t longestLine = 1000;

std::vector<std::string> nbdkitArguments(const Engine::Command& command) {
    std::vector<std::string> arguments{"--foreground", "--exit-with-parent", "--unix=" + command.socket};
    arguments.insert(arguments.end(), command.arguments.begin(), command.arguments.end());
    return arguments;
}

int checked(int result, const char* what) {
    if (result < 0) {
        throw std::system_error(errno, std::generic_category(), what);
    }
    return result;
}

} // namespace

struct Engine::Pipe {
    Pipe() {
        std::array<int, 2> ends{};
        checked(::pipe2(ends.data(), O_CLOEXEC), "make a pipe");
        reading = os::FileDescriptor(ends[0]);
        writing = os::FileDescriptor(ends[1]);
    }

    os::FileDescriptor reading;
    os::FileDescriptor writing;
};

std::shared_ptr<Engine> Engine::start(const asio::any_io_executor& executor, const Command& command,
                                      std::string image, const Log& log) {
    auto started = std::make_shared<Engine>(executor, command, std::move(image), log, Pipe());
    started->run();
    return started;
}

Engine::Engine(const asio::any_io_executor& executor, const Command& command, std::string image,
               const Log& log, Pipe pipe)
    : strand(asio::make_strand(executor)),
      socketPath(command.socket),
      image(std::move(image)),
      log(log),
      process(command.program, nbdkitArguments(command), pipe.writing),
      end(strand, checked(::fcntl(process.descriptor(), F_DUPFD_CLOEXEC, 0), "keep a process")),
      output(strand, pipe.reading.release()),
      killTimer(strand),
      drainTimer(strand) {}

void Engine::run() {
    const auto self = shared_from_this();
    asio::co_spawn(strand, [self] { return self->watch(); }, asio::detached);
    asio::co_spawn(strand, [self] { return self->readOutput(); }, asio::detached);
}

void Engine::stop() {
    asio::post(strand, [self = shared_from_this()] { self->terminate(); });
}

void Engine::terminate() {
    if (sent != 0 || process.hasEnded()) {
        return;
    }
    send(SIGTERM);
    killTimer.expires_after(stopTime);
    killTimer.async_wait([self = shared_from_this()](const asio::error_code& error) {
        if (!error) {
            self->log.warning(self->image + ": nbdkit doesn't end and is killed");
            self->send(SIGKILL);
        }
    });
}

void Engine::send(int signal) {
    sent = signal;
    process.send(signal);
}

/// Whether the process ended because of `stop`. It isn't enough that a signal was sent: if an engine crashes,
/// its sessions may notice that first, and call `stop`.
bool Engine::wasAsked(const ProcessEnd& how) const {
    return sent != 0 && (how.signal == 0 ? how.status == 0 : how.signal == sent);
}

asio::awaitable<void> Engine::watch() {
    co_await end.async_wait(asio::posix::descriptor_base::wait_read, asio::use_awaitable);
    while (!process.hasEnded()) { // a tracer may keep it from being reaped for a moment
        asio::steady_timer timer(strand, reapRetryPause);
        co_await timer.async_wait(asio::use_awaitable);
    }
    const ProcessEnd how = process.reap();
    ::unlink(socketPath.c_str());
    if (!wasAsked(how)) {
        log.error(image + ": nbdkit has ended by itself, with " + how.inWords());
    }
    killTimer.cancel();
    if (output.is_open()) {
        asio::error_code atOnce;
        drainTimer.expires_after(drainTime);
        co_await drainTimer.async_wait(asio::redirect_error(asio::use_awaitable, atOnce));
        output.close();
    }
}

asio::awaitable<void> Engine::readOutput() {
    std::array<char, 4096> piece{};
    std::string line;
    asio::error_code error;
    while (!error) {
        const std::size_t length = co_await output.async_read_some(
            asio::buffer(piece), asio::redirect_error(asio::use_awaitable, error));
        for (const char c : std::span(piece).first(length)) {
            if (c == '\n') {
                say(line);
                line.clear();
            } else if (line.size() < longestLine) {
                line += c;
            }
        }
    }
    output.close();
    drainTimer.cancel();
}

void Engine::say(const std::string& line) {
    const LineLimit::Verdict verdict = limit.ask();
    if (verdict.leftOut > 0) {
        log.warning(image + ": " + std::to_string(verdict.leftOut) + " lines of nbdkit were left out");
    }
    if (verdict.isAllowed) {
        log.warning(image + ": " + line);
    }
}

} // namespace zephane
