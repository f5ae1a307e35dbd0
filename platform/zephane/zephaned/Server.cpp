#include "zephane/zephaned/Server.h"

#include "zephane/zephaned/BackEndSource.h"
#include "zephane/zephaned/Engine.h"
#include "zephane/zephaned/Names.h"
#include "zephane/zephaned/Program.h"

#include <algorithm>
#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/ip/v6_only.hpp>
#include <asio/redirect_error.hpp>
#include <asio/steady_timer.hpp>
#include <asio/use_awaitable.hpp>
#include <csignal>
#include <thread>
#include <unistd.h>

namespace zephane {

namespace {

using asio::ip::tcp;

/// The workers only wait for engines, so there are many of them.
constexpr std::size_t workerThreads = 32;
constexpr unsigned leastThreads = 2;
constexpr unsigned mostThreads = 8;
/// The pause after a failed accept, which mostly means that there are no file descriptors left.
constexpr std::chrono::milliseconds acceptPause{100};
/// An alarm ends the server after this time, even if an engine hangs in the kernel.
constexpr unsigned endSeconds = 30;

} // namespace

Server::Server(ConfigFile configFile, const Config& config, const Log& log)
    : file(std::move(configFile)),
      startConfig(config),
      log(log),
      nbdkit(findProgram("nbdkit")),
      sockets(config.runtimeDirectory),
      tls(serverContext()),
      control(asio::make_strand(context)),
      hangups(control, SIGHUP),
      ends(control, SIGTERM, SIGINT),
      images([this](const ImageConfig& image, bool isWritable) {
          return Engine::start(context.get_executor(),
                               {nbdkit, engineArguments(image.backEnd, isWritable), sockets.newSocket()},
                               describe(image.name), this->log);
      }),
      sessions(config.maxSessions),
      workers(workerThreads),
      services{log, images, sessions, tls, workers} {
    apply(config);
    for (const Address& address : config.listen) {
        listen(address);
    }
}

void Server::listen(const Address& address) {
    const tcp::endpoint endpoint(asio::ip::make_address(address.host), address.port);
    try {
        tcp::acceptor acceptor(control);
        acceptor.open(endpoint.protocol());
        acceptor.set_option(tcp::acceptor::reuse_address(true));
        if (endpoint.address().is_v6()) {
            acceptor.set_option(asio::ip::v6_only(true));
        }
        acceptor.bind(endpoint);
        acceptor.listen();
        log.info("listening at " + describe(Address{address.host, acceptor.local_endpoint().port()}));
        acceptors.push_back(std::move(acceptor));
    } catch (const asio::system_error& error) {
        throw ConfigError("can't listen at " + describe(address) + ": " + error.code().message());
    }
}

void Server::run() {
    for (tcp::acceptor& acceptor : acceptors) {
        asio::co_spawn(control, accept(acceptor), asio::detached);
    }
    asio::co_spawn(control, waitForReloads(), asio::detached);
    asio::co_spawn(control, waitForEnd(), asio::detached);
    log.info("ready");
    // An engine ends with the thread that has started it, so all threads run until the end.
    std::vector<std::jthread> threads;
    for (unsigned more = std::clamp(std::thread::hardware_concurrency(), leastThreads, mostThreads); more > 1;
         --more) {
        threads.emplace_back([this] { context.run(); });
    }
    context.run();
    threads.clear();
    workers.join();
    ::alarm(0);
    log.info("ended");
}

asio::awaitable<void> Server::accept(tcp::acceptor& acceptor) {
    while (acceptor.is_open()) {
        asio::error_code error;
        tcp::socket socket = co_await acceptor.async_accept(asio::any_io_executor(asio::make_strand(context)),
                                                            asio::redirect_error(asio::use_awaitable, error));
        if (!error) {
            begin(std::move(socket));
        } else if (acceptor.is_open()) {
            log.error("can't take a connection: " + error.message());
            asio::steady_timer timer(control, acceptPause);
            co_await timer.async_wait(asio::use_awaitable);
        }
    }
}

void Server::begin(tcp::socket socket) {
    try {
        std::make_shared<ServerSession>(std::move(socket), services)->start();
    } catch (const std::exception& error) { // the client has disconnected already
        if (services.refusals.ask().isAllowed) {
            log.warning(std::string("refused a client: ") + error.what());
        }
    }
}

asio::awaitable<void> Server::waitForReloads() {
    for (;;) {
        co_await hangups.async_wait(asio::use_awaitable);
        reload();
    }
}

asio::awaitable<void> Server::waitForEnd() {
    co_await ends.async_wait(asio::use_awaitable);
    stop();
}

void Server::reload() {
    try {
        const Config config = file.load();
        if (config.listen != startConfig.listen || config.runtimeDirectory != startConfig.runtimeDirectory) {
            log.warning("listen and runtimeDirectory stay as they were until zephaned is started again");
        }
        apply(config);
        log.info("the configuration has been read again");
    } catch (const std::exception& error) {
        log.error("the configuration stays as it was: " + std::string(error.what()));
    }
}

void Server::apply(const Config& config) {
    for (const ImageConfig& image : config.images) {
        if (const std::string problem = problemOf(image.backEnd); !problem.empty()) {
            log.warning(describe(image.name) + ": " + problem);
        }
    }
    services.compression = config.compression;
    sessions.setLimit(config.maxSessions);
    images.configure(config.images);
    sessions.stopMatching([this](const wire::ImageName& image) { return !images.isServed(image); },
                          "the image isn't served any more");
    log.info(std::to_string(config.images.size()) + " images");
}

void Server::stop() {
    log.info("stopping");
    ::alarm(endSeconds);
    for (tcp::acceptor& acceptor : acceptors) {
        acceptor.close();
    }
    hangups.cancel();
    sessions.stopAll("the server stops");
}

} // namespace zephane
