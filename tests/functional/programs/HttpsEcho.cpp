#include "info/log/Logger.h"
#include "ordak/HTTPServer.h"
#include "os/Mutex.h"

#include <nlohmann/json.hpp>

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <gnutls/crypto.h>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <stdexcept>

namespace {

/// Blocks requests until the test lets one go.
class Gate {
public:
    void open() {
        const os::Lock lock(mutex);
        ++opened;
        changed.notify_all();
    }
    void pass() {
        os::Lock lock(mutex);
        while (opened == 0) {
            lock.wait(changed);
        }
        --opened;
    }
    /// Waits up to a second; returns whether the gate was opened.
    bool opensSoon() {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(1);
        os::Lock lock(mutex);
        while (opened == 0) {
            if (!lock.waitUntil(changed, end)) {
                return opened > 0;
            }
        }
        return true;
    }

private:
    os::Mutex mutex;
    std::condition_variable changed;
    int opened GUARDED_BY(mutex) = 0;
};

std::string readFile(const char* path) {
    std::ostringstream content;
    content << std::ifstream(path).rdbuf();
    return content.str();
}

std::string sha256(const std::string& data) {
    std::array<unsigned char, 32> digest{};
    gnutls_hash_fast(GNUTLS_DIG_SHA256, data.data(), data.size(), digest.data());
    std::ostringstream text;
    for (const unsigned byte : digest) {
        text << std::hex << std::setw(2) << std::setfill('0') << byte;
    }
    return text.str();
}

void serve(const char* key, const char* certificate, const char* trust) {
    agent::info::Logger logger([](const std::string& message, int level, agent::info::LogTime /*time*/) {
        std::cout << level << " " << message << std::flush;
    });
    Gate gate;
    Gate stopping;
    Gate stopped;
    const auto answer = [&](int deviceId, const std::string& ip, const std::string& method,
                            const std::string& url, const agent::ordak::HTTPServer::Arguments& args,
                            const std::string& body, std::string& contentType, std::string& response) {
        if (url == "/wait") {
            agent::info::LogEntry(logger, agent::info::level::info) << "waiting";
            gate.pass();
        } else if (url == "/linger") {
            agent::info::LogEntry(logger, agent::info::level::info) << "lingering";
            stopping.pass();
            const bool isLeftBehind = stopped.opensSoon();
            agent::info::LogEntry(logger, agent::info::level::info)
                << (isLeftBehind ? "left behind" : "waited for");
        } else if (url == "/throw") {
            throw std::runtime_error("as asked for");
        } else if (url == "/strange") {
            throw 1; // NOLINT: what a handler may do
        }
        constexpr std::size_t shownBytes = 4096;
        contentType = "application/json";
        response = nlohmann::json{{"deviceId", deviceId},
                                  {"ip", ip},
                                  {"method", method},
                                  {"url", url},
                                  {"args", args},
                                  {"bodyBytes", body.size()},
                                  {"bodyHash", sha256(body)},
                                  {"body", body.substr(0, shownBytes)}}
                       .dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
        constexpr std::size_t bigBytes = std::size_t{16} << 20U;
        response.resize(url == "/big" ? bigBytes : response.size(), ' ');
        return 200;
    };
    agent::ordak::HTTPServer server(logger, readFile(key), readFile(certificate), readFile(trust), answer);
    server.start();
    for (std::string line; std::getline(std::cin, line);) {
        gate.open();
    }
    stopping.open();
    server.stop();
    stopped.open();
}

} // namespace

/// HttpsEcho KEY CERTIFICATE TRUST: an HTTPServer that answers each request with a description of it. The log
/// goes to standard output. Each line of standard input lets one request to /wait go; the end of standard
/// input stops the server. Special URLs: /wait blocks, /linger ends a second after a stop has begun, /big
/// answers with 16 MiB, /throw and /strange throw.
int main(int argc, char** argv) {
    if (argc != 4) {
        std::fputs("usage: HttpsEcho KEY CERTIFICATE TRUST\n", stderr);
        return 2;
    }
    try {
        serve(argv[1], argv[2], argv[3]);
        return EXIT_SUCCESS;
    } catch (const std::exception& error) {
        std::fputs(error.what(), stderr);
    } catch (...) {
        std::fputs("unknown failure", stderr);
    }
    return EXIT_FAILURE;
}
