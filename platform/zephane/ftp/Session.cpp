#include "zephane/ftp/Session.h"

#include "os/FileDescriptor.h"
#include "os/Mutex.h"
#include "zephane/socket/Message.h"
#include "zephane/socket/Relay.h"
#include "zephane/socket/Transport.h"
#include "zephane/wire/Handshake.h"
#include "zephane/wire/ProtocolError.h"

#include <array>
#include <asio/co_spawn.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <pthread.h>
#include <sys/socket.h>
#include <thread>
#include <utility>

namespace zephane {

namespace {

using Local = asio::local::stream_protocol::socket;

/// Blocks all signals, so that a thread started in this scope inherits the mask: the program's own threads
/// handle signals.
class SignalsBlocked {
public:
    SignalsBlocked() {
        sigset_t all{};
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &previous);
    }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &previous, nullptr); }

private:
    sigset_t previous{};
};

} // namespace

/// The state of the connection's thread, and what it shares with the caller.
class Session::Conversation {
public:
    Conversation(std::unique_ptr<SocketImpl> socket, SessionPeer peer, std::chrono::milliseconds patience)
        : socket(std::move(socket)), peer(std::move(peer)), patience(patience) {}
    Conversation(const Conversation&) = delete;
    Conversation& operator=(const Conversation&) = delete;
    ~Conversation();

    void start();
    std::uint64_t awaitGrant(Clock::time_point until);
    int takeLocal() { return clientEnd.release(); }
    wire::DigestAnswer ask(const wire::DigestRequest& request, const std::function<void()>& meanwhile);
    bool hasEnded() const;
    std::optional<Failure> end();

private:
    void work();
    asio::awaitable<void> converse();
    asio::awaitable<wire::Verdict> shakeHands(Transport& transport);
    Filters filtersFor(std::uint64_t flags);
    Local makeLocal();
    void send(const wire::Bytes& request);
    void handleFrame(wire::FrameKind kind, std::span<const std::uint8_t> payload);
    void announce(std::uint64_t flags);
    void finish(const std::exception_ptr& exception);
    void stop();

    // Declared first, because the sockets in the members below use it.
    asio::io_context io{1};
    std::unique_ptr<SocketImpl> socket;
    const SessionPeer peer;
    const std::chrono::milliseconds patience;

    // Only the thread uses these, once it has been started.
    std::optional<Relay> relay;
    const char* step = "cannot connect";
    bool isStopping = false;
    bool isAsked = false;

    mutable os::Mutex mutex;
    std::condition_variable changed;
    std::optional<std::uint64_t> granted GUARDED_BY(mutex);
    std::optional<wire::DigestAnswer> answer GUARDED_BY(mutex);
    std::optional<Failure> failure GUARDED_BY(mutex);
    bool isEnded GUARDED_BY(mutex) = false;

    os::FileDescriptor clientEnd; ///< written before `granted`, read after it
    std::thread thread;
};

Session::Conversation::~Conversation() {
    end();
}

void Session::Conversation::start() {
    const SignalsBlocked none;
    thread = std::thread(&Conversation::work, this);
}

void Session::Conversation::work() {
    pthread_setname_np(pthread_self(), "zephane");
    asio::co_spawn(io, converse(), [this](const std::exception_ptr& exception) { finish(exception); });
    io.run();
}

asio::awaitable<void> Session::Conversation::converse() {
    Transport& transport = socket->transport();
    co_await transport.connect(peer.host, peer.port);
    step = "the handshake failed";
    const wire::Verdict verdict = co_await shakeHands(transport);
    if (verdict.code != 0) {
        step = "the server refused";
        throw CallError(-verdict.code, verdict.text);
    }
    relay.emplace(
        transport, filtersFor(verdict.granted), makeLocal(),
        [this](auto kind, auto payload) { handleFrame(kind, payload); }, patience);
    step = "the connection broke";
    announce(verdict.granted);
    co_await relay->run();
}

asio::awaitable<wire::Verdict> Session::Conversation::shakeHands(Transport& transport) {
    wire::ClientHandshake handshake(peer.hello, peer.secret, transport.channelBinding());
    co_await transport.write(asio::buffer(handshake.hello()));
    const wire::Bytes hello = co_await readMessage(transport);
    const wire::Bytes proof = handshake.answer(hello);
    co_await transport.write(asio::buffer(proof));
    const wire::Bytes verdict = co_await readMessage(transport);
    co_return handshake.finish(verdict);
}

Filters Session::Conversation::filtersFor(std::uint64_t flags) {
    if ((flags & wire::compressionFlag) == 0) {
        return {};
    }
    if (socket->filters().reading.empty() || socket->filters().writing.empty()) {
        throw CallError(EINVAL, "the socket has no filters to compress with");
    }
    return socket->filters();
}

Local Session::Conversation::makeLocal() {
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        throw std::system_error(errno, std::generic_category(), "socketpair");
    }
    clientEnd = os::FileDescriptor(ends[1]);
    return {io, asio::local::stream_protocol(), ends[0]};
}

void Session::Conversation::announce(std::uint64_t flags) {
    const os::Lock lock(mutex);
    granted = flags;
    changed.notify_all();
}

void Session::Conversation::finish(const std::exception_ptr& exception) {
    const os::Lock lock(mutex);
    isEnded = true;
    // If the relay was stopped from outside, it reports no failure. An error before the relay's start was
    // then caused by the stop itself.
    if (exception && (relay || !isStopping)) {
        failure = failureOf(exception);
        failure->text = step + (": " + failure->text);
    } else if (!isStopping && relay && relay->hasRemoteEnded()) { // not the client
        failure = Failure{ECONNRESET, "the server has ended the connection"};
    }
    changed.notify_all();
}

std::uint64_t Session::Conversation::awaitGrant(Clock::time_point until) {
    os::Lock lock(mutex);
    while (!granted && !isEnded) {
        if (!lock.waitUntil(changed, until) && !granted && !isEnded) {
            throw CallError(ETIMEDOUT, "the server doesn't answer");
        }
    }
    if (!granted) {
        throw CallError(failure->error, failure->text);
    }
    return *granted;
}

wire::DigestAnswer Session::Conversation::ask(const wire::DigestRequest& request,
                                              const std::function<void()>& meanwhile) {
    os::Lock lock(mutex);
    answer.reset();
    lock.unlock();
    asio::post(io, [this, message = wire::encode(request)] { send(message); });
    meanwhile();
    lock.lock();
    const Clock::time_point until = Clock::now() + patience;
    while (!answer && !isEnded) {
        if (!lock.waitUntil(changed, until) && !answer && !isEnded) {
            throw CallError(ETIMEDOUT, "the server doesn't tell what the image holds");
        }
    }
    if (!answer) {
        throw CallError(ENOTCONN, "the connection ended before the server told what the image holds");
    }
    return std::move(*answer);
}

void Session::Conversation::send(const wire::Bytes& request) {
    isAsked = true;
    relay->send(wire::FrameKind::digestRequest, request);
}

void Session::Conversation::handleFrame(wire::FrameKind kind, std::span<const std::uint8_t> payload) {
    if (kind != wire::FrameKind::digestAnswer || !std::exchange(isAsked, false)) {
        throw wire::ProtocolError("the server sends a frame that nobody has asked for");
    }
    wire::DigestAnswer decoded = wire::decodeDigestAnswer(payload);
    const os::Lock lock(mutex);
    answer = std::move(decoded);
    changed.notify_all();
}

bool Session::Conversation::hasEnded() const {
    const os::Lock lock(mutex);
    return isEnded;
}

void Session::Conversation::stop() {
    isStopping = true;
    if (relay) {
        relay->stop();
    } else {
        socket->transport().close();
    }
}

std::optional<Failure> Session::Conversation::end() {
    if (thread.joinable()) {
        asio::post(io, [this] { stop(); });
        thread.join();
    }
    const os::Lock lock(mutex);
    return failure;
}

Session::Session(std::unique_ptr<SocketImpl> socket, const SessionPeer& peer,
                 std::chrono::milliseconds patience) {
    if (!socket) {
        throw CallError(EINVAL, "there is no socket to speak through");
    }
    conversation = std::make_unique<Conversation>(std::move(socket), peer, patience);
}

Session::~Session() = default;

std::uint64_t Session::open(Clock::time_point until) {
    conversation->start();
    return conversation->awaitGrant(until);
}

int Session::takeLocal() {
    return conversation->takeLocal();
}

std::vector<wire::Digest> Session::digests(const wire::DigestRequest& request,
                                           const std::function<void()>& meanwhile) {
    wire::DigestAnswer answer;
    try {
        answer = conversation->ask(request, meanwhile);
    } catch (...) {
        conversation->end(); // a late answer would be taken for that of the next request
        throw;
    }
    if (answer.code != 0) {
        throw CallError(-answer.code, "the server can't tell what the image holds");
    }
    if (answer.digests.size() != wire::digestsIn(request.length)) {
        conversation->end();
        throw wire::ProtocolError("the server tells of another range than it was asked for");
    }
    return std::move(answer.digests);
}

bool Session::hasEnded() const {
    return conversation->hasEnded();
}

std::optional<Failure> Session::end() {
    return conversation->end();
}

} // namespace zephane
