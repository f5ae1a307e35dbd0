#pragma once

#include "zephane/zephaned/ConfigFile.h"
#include "zephane/zephaned/Images.h"
#include "zephane/zephaned/Log.h"
#include "zephane/zephaned/RuntimeDirectory.h"
#include "zephane/zephaned/ServerSession.h"
#include "zephane/zephaned/Sessions.h"

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/signal_set.hpp>
#include <asio/strand.hpp>
#include <asio/thread_pool.hpp>
#include <string>
#include <vector>

namespace zephane {

/// The whole server: accepts connections until a signal ends it.
/// Owns:    all parts of the server: its listening sockets, images, sessions and threads.
/// Threads: one thread constructs it and calls `run`, which starts a few threads of its own.
/// Fails:   the constructor throws ConfigError or std::system_error; later failures are logged.
///
/// SIGHUP reloads the configuration. SIGTERM and SIGINT end all sessions, then their engines, then `run`.
class Server {
public:
    /// Listens from here on. `log` must outlive the server.
    Server(ConfigFile file, const Config& config, const Log& log);
    void run();

private:
    void listen(const Address& address);
    asio::awaitable<void> accept(asio::ip::tcp::acceptor& acceptor);
    void begin(asio::ip::tcp::socket socket);
    asio::awaitable<void> waitForReloads();
    asio::awaitable<void> waitForEnd();
    void reload();
    void apply(const Config& config);
    void stop();

    const ConfigFile file;
    const Config startConfig; ///< the configuration at the start
    const Log& log;
    const std::string nbdkit;
    RuntimeDirectory sockets;
    asio::ssl::context tls;
    asio::io_context context;
    asio::strand<asio::io_context::executor_type> control; ///< for the signals and the acceptors
    asio::signal_set hangups;
    asio::signal_set ends;
    std::vector<asio::ip::tcp::acceptor> acceptors;
    Images images;
    Sessions sessions;
    asio::thread_pool workers;
    SessionServices services;
};

} // namespace zephane
