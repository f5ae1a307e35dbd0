#include "ordak/HTTPServer.h"

#include "common/PeerText.h"
#include "common/TerminationSignals.h"
#include "ordak/Certificate.h"
#include "ordak/LibraryLog.h"
#include "ordak/ListeningSocket.h"
#include "ordak/RequestBody.h"
#include "ordak/UnidentifiedConnections.h"
#include "ordak/VerifyClient.h"

#include <arpa/inet.h>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <microhttpd.h>
#include <netinet/in.h>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace agent::ordak {
namespace {

constexpr std::uint16_t port = 25567;
constexpr unsigned connectionTimeoutSeconds = 120;
/// For connections that haven't been identified as the paired device's.
constexpr unsigned unidentifiedTimeoutSeconds = 10;
constexpr std::size_t maxUnidentified = 256;
constexpr const char* tlsPriorities = "NORMAL:-VERS-TLS1.0:-DES-CBC:-3DES-CBC:-NULL";

std::string textOf(const char* text) {
    return text == nullptr ? std::string() : std::string(text);
}

/// Each call checks the client's certificate again, so each call needs the TLS session.
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

int socketOf(MHD_Connection* connection) {
    const MHD_ConnectionInfo* const about =
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
    return about == nullptr ? -1 : about->connect_fd;
}

/// Decodes the %XX escapes of a URL in place. Leaves a text with %00 unchanged: the NUL would end the text
/// and change its meaning.
std::size_t unescape(void* /*closure*/, MHD_Connection* /*connection*/, char* text) noexcept {
    return std::strstr(text, "%00") == nullptr ? MHD_http_unescape(text) : std::strlen(text);
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
         RequestFunction handler, PairedFunction isPaired)
        : logger(logger),
          key(std::move(key)),
          certificate(std::move(certificate)),
          trust(std::move(trust)),
          handler(std::move(handler)),
          isPaired(std::move(isPaired)) {}
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;
    ~Impl() {
        stop();
        info::LogEntry(logger, info::level::debug) << "HTTP server destroyed";
    }

    void start();
    void stop();

private:
    /// One incoming request. The library keeps a pointer to it from the request's first call to its end. A
    /// connection has one certificate, so all parts of a request come from the same sender.
    struct Request {
        explicit Request(std::atomic<std::size_t>& kept) : data(kept) {}

        Arguments args;
        RequestBody data;
    };

    /// The arguments of one call from the library.
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
    static void noteConnection(void* closure, MHD_Connection* connection, void** socketClosure,
                               MHD_ConnectionNotificationCode event) noexcept;
    [[gnu::format(printf, 2, 0)]] static void logMessage(void* closure, const char* format,
                                                         va_list arguments) noexcept;

    MHD_Daemon* startDaemon();
    MHD_Daemon* startDaemon(int socket);
    MHD_Result process(const Call& call, Request& request);
    MHD_Result processChecked(const Call& call, Request& request, int deviceId);
    [[nodiscard]] bool isFromPaired(int deviceId) const;
    void markAsPaired(MHD_Connection* connection);
    [[nodiscard]] bool keepChunk(const std::string& chunk, Request& request, bool isFromPairedDevice);
    std::optional<MHD_Result> checkMethodAndBody(const Call& call, Request& request);
    void readArguments(MHD_Connection* connection, Request& request);
    MHD_Result answer(const Call& call, Request& request, int deviceId);

    info::Logger& logger;
    const std::string key;
    const std::string certificate;
    const std::string trust;
    const RequestFunction handler;
    const PairedFunction isPaired;
    UnidentifiedConnections unidentified{maxUnidentified, std::chrono::seconds(unidentifiedTimeoutSeconds)};
    std::atomic<std::size_t> keptBytes = 0; // of the bodies of all requests
    std::shared_ptr<MHD_Daemon> daemon;     // its threads use all of the above
};

void HTTPServer::Impl::start() {
    info::LogEntry(logger, info::level::debug) << "HTTP server starting";
    daemon.reset();
    MHD_Daemon* const started = startDaemon();
    if (started == nullptr) {
        const int error = errno;
        info::LogEntry(logger, info::level::critical, info::reason("port-taken"))
            << "HTTP server failed to start with err: " << error;
        throw std::runtime_error("HTTP server failed to start with err: " + std::to_string(error));
    }
    daemon = std::shared_ptr<MHD_Daemon>(started, MHD_stop_daemon);
    info::LogEntry(logger, info::level::info) << "HTTP server started";
}

/// Returns null with `errno` set on failure.
MHD_Daemon* HTTPServer::Impl::startDaemon() {
    ListeningSocket socket(port);
    MHD_Daemon* const started = socket ? startDaemon(socket.get()) : nullptr;
    if (started != nullptr) {
        socket.handOver();
    } else {
        socket.closeIfStillOpen();
    }
    return started;
}

/// Uses `poll`, because `select` can't handle descriptors above 1023.
MHD_Daemon* HTTPServer::Impl::startDaemon(int socket) {
    const TerminationSignalsBlocked signalsBlocked; // by the library's threads
    return MHD_start_daemon(MHD_USE_TLS | MHD_USE_THREAD_PER_CONNECTION | MHD_USE_POLL, port, nullptr,
                            nullptr, access, this, MHD_OPTION_NOTIFY_COMPLETED, complete, this, //
                            MHD_OPTION_HTTPS_MEM_KEY, key.c_str(),                              //
                            MHD_OPTION_HTTPS_MEM_CERT, certificate.c_str(),                     //
                            MHD_OPTION_HTTPS_MEM_TRUST, trust.c_str(),                          //
                            MHD_OPTION_HTTPS_CRED_TYPE, GNUTLS_CRD_CERTIFICATE,                 //
                            MHD_OPTION_CONNECTION_TIMEOUT, connectionTimeoutSeconds,            //
                            MHD_OPTION_EXTERNAL_LOGGER, logMessage, this,                       //
                            MHD_OPTION_HTTPS_PRIORITIES, tlsPriorities,                         //
                            MHD_OPTION_NOTIFY_CONNECTION, noteConnection, this,                 //
                            MHD_OPTION_UNESCAPE_CALLBACK, unescape, nullptr,                    //
                            MHD_OPTION_LISTEN_SOCKET, socket, MHD_OPTION_END);
}

void HTTPServer::Impl::stop() {
    info::LogEntry(logger, info::level::debug) << "HTTP server stopping";
    daemon.reset();
    info::LogEntry(logger, info::level::info) << "HTTP server stopped";
}

void HTTPServer::Impl::logMessage(void* closure, const char* format, va_list arguments) noexcept {
    logLibraryMessage(static_cast<Impl*>(closure)->logger, format, arguments);
}

void HTTPServer::Impl::complete(void* /*closure*/, MHD_Connection* /*connection*/, void** requestClosure,
                                MHD_RequestTerminationCode /*reason*/) noexcept {
    const std::unique_ptr<Request> ended(static_cast<Request*>(std::exchange(*requestClosure, nullptr)));
}

void HTTPServer::Impl::noteConnection(void* closure, MHD_Connection* connection, void** /*socketClosure*/,
                                      MHD_ConnectionNotificationCode event) noexcept {
    Impl& self = *static_cast<Impl*>(closure);
    if (event == MHD_CONNECTION_NOTIFY_STARTED) {
        MHD_set_connection_option(connection, MHD_CONNECTION_OPTION_TIMEOUT, unidentifiedTimeoutSeconds);
        self.unidentified.add(socketOf(connection));
    } else {
        self.unidentified.remove(socketOf(connection));
    }
}

MHD_Result HTTPServer::Impl::access(void* closure, MHD_Connection* connection, const char* url,
                                    const char* method, const char* /*version*/, const char* chunk,
                                    std::size_t* chunkBytes, void** requestClosure) noexcept {
    Impl& self = *static_cast<Impl*>(closure);
    try {
        if (*requestClosure == nullptr) { // the first call of a request; more calls follow
            *requestClosure = std::make_unique<Request>(self.keptBytes).release();
            return MHD_YES;
        }
        const MHD_Result result =
            self.process({connection, textOf(method), textOf(url),
                          chunk == nullptr ? std::string() : std::string(chunk, *chunkBytes)},
                         *static_cast<Request*>(*requestClosure));
        if (chunk != nullptr) {
            *chunkBytes = 0;
        }
        return result;
    } catch (const std::exception& error) {
        info::LogEntry(self.logger, info::level::error)
            << "Exception occurred in processing connection: " << error.what();
    } catch (...) {
        info::LogEntry(self.logger, info::level::error) << "Unknown error occurred in processing connection";
    }
    return MHD_NO;
}

MHD_Result HTTPServer::Impl::process(const Call& call, Request& request) {
    gnutls_session_t session = tlsSessionOf(logger, call.connection);
    const Certificate local(Certificate::Kind::local, session);
    const Certificate peer(Certificate::Kind::peer, session);
    if (verifyClient(logger, local, peer) != 0) {
        info::LogEntry(logger, info::level::error, info::reason("client-certificate"))
            << "Client certificate validation failed";
        return MHD_NO;
    }
    return processChecked(call, request, peer.subject().number);
}

MHD_Result HTTPServer::Impl::processChecked(const Call& call, Request& request, int deviceId) {
    const bool isFromPairedDevice = isFromPaired(deviceId);
    if (isFromPairedDevice) {
        markAsPaired(call.connection);
    }
    if (!keepChunk(call.chunk, request, isFromPairedDevice)) {
        return MHD_NO;
    }
    if (const std::optional<MHD_Result> result = checkMethodAndBody(call, request)) {
        return *result;
    }
    return answer(call, request, deviceId);
}

/// If the pairing can't be read, no device counts as paired.
bool HTTPServer::Impl::isFromPaired(int deviceId) const {
    try {
        return !isPaired || isPaired(deviceId);
    } catch (const std::exception&) {
        return false;
    }
}

void HTTPServer::Impl::markAsPaired(MHD_Connection* connection) {
    if (unidentified.remove(socketOf(connection))) {
        MHD_set_connection_option(connection, MHD_CONNECTION_OPTION_TIMEOUT, connectionTimeoutSeconds);
    }
}

bool HTTPServer::Impl::keepChunk(const std::string& chunk, Request& request, bool isFromPairedDevice) {
    const bool wasDropped = request.data.isDropped();
    const bool isKept = request.data.append(chunk, isFromPairedDevice);
    if (!isKept) {
        info::LogEntry(logger, info::level::warning)
            << "Request body is longer than " << RequestBody::maxBytes << " bytes";
    } else if (request.data.isDropped() && !wasDropped) {
        info::LogEntry(logger, info::level::warning)
            << "Request body of a device that isn't paired is longer than " << RequestBody::maxUnpairedBytes
            << " bytes, and is dropped";
    }
    return isKept;
}

/// Returns the result for the library, or nothing if the request is complete.
std::optional<MHD_Result> HTTPServer::Impl::checkMethodAndBody(const Call& call, Request& request) {
    if (call.method == "GET") {
        if (!call.chunk.empty()) {
            info::LogEntry(logger, info::level::warning) << "Invalid GET request. Data exists in body.";
            return MHD_NO;
        }
        readArguments(call.connection, request);
        return std::nullopt;
    }
    if (call.method == "POST" || call.method == "PUT" || call.method == "DELETE") {
        return call.chunk.empty() ? std::nullopt : std::optional(MHD_YES);
    }
    info::LogEntry(logger, info::level::warning) << "Invalid method during request";
    return MHD_NO;
}

void HTTPServer::Impl::readArguments(MHD_Connection* connection, Request& request) {
    if (MHD_get_connection_values(connection, MHD_GET_ARGUMENT_KIND, collectArgument, &request.args) < 0) {
        info::LogEntry(logger, info::level::debug) << "no url args";
    }
    for (const auto& [name, value] : request.args) {
        info::LogEntry(logger, info::level::debug) << printable(name) << " = " << printable(value);
    }
}

MHD_Result HTTPServer::Impl::answer(const Call& call, Request& request, int deviceId) {
    const std::string ip = clientAddress(logger, call.connection);
    std::string contentType;
    std::string response;
    const int status = handler(deviceId, ip, call.method, call.url, request.args, request.data.take(),
                               contentType, response);
    return queueResponse(call.connection, status, contentType, response);
}

HTTPServer::HTTPServer(info::Logger& logger, std::string key, std::string certificate, std::string trust,
                       RequestFunction handler, PairedFunction isPaired)
    : impl(std::make_unique<Impl>(logger, std::move(key), std::move(certificate), std::move(trust),
                                  std::move(handler), std::move(isPaired))) {}

HTTPServer::~HTTPServer() = default;

void HTTPServer::start() {
    impl->start();
}

void HTTPServer::stop() {
    impl->stop();
}

} // namespace agent::ordak
