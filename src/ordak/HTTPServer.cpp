#include "ordak/HTTPServer.h"

#include "common/TerminationSignals.h"
#include "ordak/Certificate.h"
#include "ordak/LibraryLog.h"
#include "ordak/VerifyClient.h"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <microhttpd.h>
#include <mutex>
#include <netinet/in.h>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace agent::ordak {
namespace {

constexpr std::uint16_t port = 25567;
constexpr unsigned connectionTimeoutSeconds = 120;
constexpr const char* tlsPriorities = "NORMAL:-VERS-TLS1.0:-DES-CBC:-3DES-CBC:-NULL";

/// Generously above anything that an appliance sends.
constexpr std::size_t mostBodyBytes = std::size_t{128} * 1024 * 1024;

std::string textOf(const char* text) {
    return text == nullptr ? std::string() : std::string(text);
}

/// The client's certificate is asked for anew at each call, so a session is needed each time.
gnutls_session_t tlsSessionOf(info::Logger& logger, MHD_Connection* connection) {
    const MHD_ConnectionInfo* const about =
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_GNUTLS_SESSION);
    if (about == nullptr || about->tls_session == nullptr) {
        info::LogEntry(logger, info::level::warning) << "Invalid TLS session during request.";
        throw std::runtime_error("Invalid TLS session during request");
    }
    return static_cast<gnutls_session_t>(about->tls_session);
}

std::string clientAddress(info::Logger& logger, MHD_Connection* connection) {
    const MHD_ConnectionInfo* const about =
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
    if (about == nullptr || about->client_addr == nullptr) {
        info::LogEntry(logger, info::level::warning) << "Could not get connection info for ip address";
        return {};
    }
    sockaddr_in address{};
    static_assert(sizeof address <= sizeof *about->client_addr);
    std::memcpy(&address, about->client_addr, sizeof address);
    std::array<char, INET_ADDRSTRLEN> text{};
    if (::inet_ntop(AF_INET, &address.sin_addr, text.data(), text.size()) == nullptr) {
        info::LogEntry(logger, info::level::warning) << "Could not recognize network ip address";
        return {};
    }
    return text.data();
}

MHD_Result collectArgument(void* closure, MHD_ValueKind /*kind*/, const char* key,
                           const char* value) noexcept {
    const std::string name = textOf(key);
    if (!name.empty()) {
        static_cast<HTTPServer::Arguments*>(closure)->insert_or_assign(name, textOf(value));
    }
    return MHD_YES;
}

MHD_Result queueResponse(MHD_Connection* connection, int status, const std::string& contentType,
                         std::string& text) {
    const std::unique_ptr<MHD_Response, decltype(&MHD_destroy_response)> response(
        MHD_create_response_from_buffer(text.size(), text.data(), MHD_RESPMEM_MUST_COPY),
        MHD_destroy_response);
    if (!response) {
        return MHD_NO;
    }
    MHD_add_response_header(response.get(), "Content-Type", contentType.c_str());
    return MHD_queue_response(connection, static_cast<unsigned>(status), response.get());
}

} // namespace

class HTTPServer::Impl {
public:
    Impl(info::Logger& logger, std::string key, std::string certificate, std::string trust,
         RequestFunction handler)
        : logger(logger),
          key(std::move(key)),
          certificate(std::move(certificate)),
          trust(std::move(trust)),
          handler(std::move(handler)) {}
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;
    ~Impl() {
        stop();
        info::LogEntry(logger, info::level::debug) << "HTTP server destroyed";
    }

    void start();
    void stop();

private:
    /// What the library hands over at each call.
    struct Call {
        MHD_Connection* connection;
        std::string method;
        std::string url;
        std::string chunk; ///< Empty at the last call of a request.
    };

    static MHD_Result access(void* closure, MHD_Connection* connection, const char* url, const char* method,
                             const char* version, const char* chunk, std::size_t* chunkBytes,
                             void** requestClosure) noexcept;
    static void complete(void* closure, MHD_Connection* connection, void** requestClosure,
                         MHD_RequestTerminationCode reason) noexcept;
    [[gnu::format(printf, 2, 0)]] static void logMessage(void* closure, const char* format,
                                                         va_list arguments) noexcept;

    MHD_Daemon* startDaemon();
    void forgetRequest();
    void endRequest(const MHD_Connection* connection);
    bool takeFirstCall(const MHD_Connection* connection);
    std::string takeData(Arguments& requestArgs);
    [[nodiscard]] bool keepChunk(const std::string& chunk);
    MHD_Result process(const Call& call);
    MHD_Result processChecked(const Call& call, int deviceId);
    std::optional<MHD_Result> takeBody(const Call& call);
    void takeArguments(MHD_Connection* connection);
    MHD_Result answer(const Call& call, int deviceId);

    info::Logger& logger;
    const std::string key;
    const std::string certificate;
    const std::string trust;
    const RequestFunction handler;
    std::shared_ptr<MHD_Daemon> daemon;

    std::mutex mutex;      // innermost, and never held while another function of ours or the library's runs
    Arguments args;        // guarded by mutex
    std::string data;      // guarded by mutex
    bool firstCall = true; // guarded by mutex
    const MHD_Connection* current = nullptr; // guarded by mutex; whose first call it was
};

void HTTPServer::Impl::start() {
    info::LogEntry(logger, info::level::debug) << "HTTP server starting";
    daemon.reset();
    forgetRequest();
    MHD_Daemon* const started = startDaemon();
    if (started == nullptr) {
        const int error = errno;
        info::LogEntry(logger, info::level::critical) << "HTTP server failed to start with err: " << error;
        throw std::runtime_error("HTTP server failed to start with err: " + std::to_string(error));
    }
    daemon = std::shared_ptr<MHD_Daemon>(started, MHD_stop_daemon);
    info::LogEntry(logger, info::level::info) << "HTTP server started";
}

MHD_Daemon* HTTPServer::Impl::startDaemon() {
    const TerminationSignalsBlocked inherited; // by the library's threads
    return MHD_start_daemon(MHD_USE_TLS | MHD_USE_THREAD_PER_CONNECTION, port, nullptr, nullptr, access, this,
                            MHD_OPTION_NOTIFY_COMPLETED, complete, this,             //
                            MHD_OPTION_HTTPS_MEM_KEY, key.c_str(),                   //
                            MHD_OPTION_HTTPS_MEM_CERT, certificate.c_str(),          //
                            MHD_OPTION_HTTPS_MEM_TRUST, trust.c_str(),               //
                            MHD_OPTION_HTTPS_CRED_TYPE, GNUTLS_CRD_CERTIFICATE,      //
                            MHD_OPTION_CONNECTION_TIMEOUT, connectionTimeoutSeconds, //
                            MHD_OPTION_EXTERNAL_LOGGER, logMessage, this,            //
                            MHD_OPTION_HTTPS_PRIORITIES, tlsPriorities, MHD_OPTION_END);
}

void HTTPServer::Impl::stop() {
    info::LogEntry(logger, info::level::debug) << "HTTP server stopping";
    daemon.reset();
    info::LogEntry(logger, info::level::info) << "HTTP server stopped";
}

void HTTPServer::Impl::logMessage(void* closure, const char* format, va_list arguments) noexcept {
    logLibraryMessage(static_cast<Impl*>(closure)->logger, format, arguments);
}

void HTTPServer::Impl::complete(void* closure, MHD_Connection* connection, void** /*requestClosure*/,
                                MHD_RequestTerminationCode /*reason*/) noexcept {
    static_cast<Impl*>(closure)->endRequest(connection);
}

MHD_Result HTTPServer::Impl::access(void* closure, MHD_Connection* connection, const char* url,
                                    const char* method, const char* /*version*/, const char* chunk,
                                    std::size_t* chunkBytes, void** /*requestClosure*/) noexcept {
    Impl& self = *static_cast<Impl*>(closure);
    if (self.takeFirstCall(connection)) {
        return MHD_YES;
    }
    try {
        const MHD_Result result =
            self.process({connection, textOf(method), textOf(url),
                          chunk == nullptr ? std::string() : std::string(chunk, *chunkBytes)});
        if (chunk != nullptr) {
            *chunkBytes = 0;
        }
        if (result == MHD_YES) {
            return MHD_YES;
        }
    } catch (const std::exception& error) {
        info::LogEntry(self.logger, info::level::error)
            << "Exception occurred in processing connection: " << error.what();
    } catch (...) {
        info::LogEntry(self.logger, info::level::error) << "Unknown error occurred in processing connection";
    }
    self.endRequest(connection);
    return MHD_NO;
}

MHD_Result HTTPServer::Impl::process(const Call& call) {
    gnutls_session_t session = tlsSessionOf(logger, call.connection);
    const Certificate local(Certificate::Kind::local, session);
    const Certificate peer(Certificate::Kind::peer, session);
    if (verifyClient(logger, local, peer) != 0) {
        info::LogEntry(logger, info::level::error) << "Client certificate validation failed";
        return MHD_NO;
    }
    return processChecked(call, peer.subject().number);
}

MHD_Result HTTPServer::Impl::processChecked(const Call& call, int deviceId) {
    if (!keepChunk(call.chunk)) {
        info::LogEntry(logger, info::level::warning)
            << "Request body is longer than " << mostBodyBytes << " bytes";
        return MHD_NO;
    }
    if (const std::optional<MHD_Result> result = takeBody(call)) {
        return *result;
    }
    return answer(call, deviceId);
}

/// Returns what the library is to be told, or nothing if the request is complete.
std::optional<MHD_Result> HTTPServer::Impl::takeBody(const Call& call) {
    {
        const std::lock_guard lock(mutex);
        args.clear();
    }
    if (call.method == "GET") {
        if (!call.chunk.empty()) {
            info::LogEntry(logger, info::level::warning) << "Invalid GET request. Data exists in body.";
            return MHD_NO;
        }
        takeArguments(call.connection);
        forgetRequest();
        return std::nullopt;
    }
    if (call.method == "POST" || call.method == "PUT" || call.method == "DELETE") {
        return call.chunk.empty() ? std::nullopt : std::optional(MHD_YES);
    }
    info::LogEntry(logger, info::level::warning) << "Invalid method during request";
    return MHD_NO;
}

void HTTPServer::Impl::takeArguments(MHD_Connection* connection) {
    Arguments collected;
    if (MHD_get_connection_values(connection, MHD_GET_ARGUMENT_KIND, collectArgument, &collected) < 0) {
        info::LogEntry(logger, info::level::debug) << "no url args";
    }
    for (const auto& [name, value] : collected) {
        info::LogEntry(logger, info::level::debug) << name << " = " << value;
    }
    const std::lock_guard lock(mutex);
    args = std::move(collected);
}

MHD_Result HTTPServer::Impl::answer(const Call& call, int deviceId) {
    const std::string ip = clientAddress(logger, call.connection);
    Arguments requestArgs;
    std::string body = takeData(requestArgs);
    std::string contentType;
    std::string response;
    const int status =
        handler(deviceId, ip, call.method, call.url, requestArgs, std::move(body), contentType, response);
    return queueResponse(call.connection, status, contentType, response);
}

void HTTPServer::Impl::forgetRequest() {
    const std::lock_guard lock(mutex);
    firstCall = true;
    current = nullptr;
    data = std::string(); // with its memory, which may be a lot
}

/// A client that has its answer may send the next request, on another connection, before the library reports
/// the end of the last one: that must not take the next one's first call from it.
void HTTPServer::Impl::endRequest(const MHD_Connection* connection) {
    const std::lock_guard lock(mutex);
    if (current == connection) {
        firstCall = true;
        current = nullptr;
        data = std::string();
    }
}

/// What a request that overlapped with another one has left, because it didn't own the end, isn't the next
/// one's.
bool HTTPServer::Impl::takeFirstCall(const MHD_Connection* connection) {
    const std::lock_guard lock(mutex);
    if (firstCall) {
        current = connection;
        data = std::string();
    }
    return std::exchange(firstCall, false);
}

/// The request is complete, so that the next one may begin, as soon as the client has its answer.
std::string HTTPServer::Impl::takeData(Arguments& requestArgs) {
    const std::lock_guard lock(mutex);
    requestArgs = args;
    firstCall = true;
    current = nullptr;
    return std::exchange(data, {});
}

bool HTTPServer::Impl::keepChunk(const std::string& chunk) {
    const std::lock_guard lock(mutex);
    if (chunk.size() > mostBodyBytes - data.size()) {
        return false;
    }
    data += chunk;
    return true;
}

HTTPServer::HTTPServer(info::Logger& logger, std::string key, std::string certificate, std::string trust,
                       RequestFunction handler)
    : impl(std::make_unique<Impl>(logger, std::move(key), std::move(certificate), std::move(trust),
                                  std::move(handler))) {}

HTTPServer::~HTTPServer() = default;

void HTTPServer::start() {
    impl->start();
}

void HTTPServer::stop() {
    impl->stop();
}

} // namespace agent::ordak
