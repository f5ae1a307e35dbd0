#pragma once

#include "common/IService.h"
#include "info/log/Logger.h"

#include <functional>
#include <memory>
#include <string>
#include <unordered_map>

namespace agent::ordak {

/// The agent's only listening socket: HTTPS on port 25567 of all IPv4 interfaces, for devices that the rules
/// of VerifyClient.h accept. Hands each finished request to one function; knows the meaning of no URL.
///
/// Made for one appliance that sends one request at a time. The URL arguments, the body collected so far and
/// the mark "the next call is the first of a request" exist once for all connections, so requests that
/// overlap in time disturb one another: one may lose its body or the beginning of it, get a piece of
/// another's appended, get another's URL arguments, or be left without an answer until it times out. Even a
/// client without a certificate can do so, but it adds nothing to a body: only a chunk whose sender has been
/// checked is kept. A mutex guards the three, so an overlap never goes further than that: it isn't held
/// while the request function runs, which works on copies.
///
/// Limits. A body above 128 MiB is refused; the library holds method, URL and headers to 32 KiB. It takes
/// some thousand connections at most (FD_SETSIZE less four), each with a thread and a descriptor, and closes
/// one that has been silent for 120 seconds. A process whose limit of descriptors is 1024 can thus be left
/// without any by idle clients; it should be at least 2048.
///
/// Owns:    the library's daemon and its threads, and copies of the TLS material.
/// Threads: `start` and `stop` on one thread; the request function on one thread for each connection, which
///          `stop` waits for. None of them ever takes a termination signal.
/// Fails:   `start` by std::runtime_error. A request that can't be served ends its connection and is logged.
class HTTPServer : public IService {
public:
    using Arguments = std::unordered_map<std::string, std::string>;
    /// Returns the HTTP status. What it throws is logged and closes the connection.
    using RequestFunction = std::function<int(int deviceId, std::string ip, std::string method,
                                              std::string url, const Arguments& args, std::string data,
                                              std::string& contentType, std::string& response)>;

    /// `key`, `certificate` and `trust` are PEM texts.
    HTTPServer(info::Logger& logger, std::string key, std::string certificate, std::string trust,
               RequestFunction handler);
    HTTPServer(const HTTPServer&) = delete;
    HTTPServer& operator=(const HTTPServer&) = delete;
    ~HTTPServer() override;

    /// Listens; a server that does already begins anew.
    void start() override;
    /// Does nothing but log if the server isn't started.
    void stop() override;

private:
    class Impl;
    std::unique_ptr<Impl> impl;
};

} // namespace agent::ordak
