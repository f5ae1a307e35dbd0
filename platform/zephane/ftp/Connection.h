#pragma once

#include "zephane/ftp/DifferingRuns.h"
#include "zephane/ftp/Failure.h"
#include "zephane/ftp/Session.h"
#include "zephane/ftp/UnflushedRange.h"
#include "zephane/ftp/ZephaneFTPClient.h"
#include "zephane/nbd/NbdImage.h"

#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace zephane {

/// The implementation of ZephaneFTPClient, which documents the calls. This object keeps its address when the
/// client is moved.
class ZephaneFTPClient::Connection {
public:
    Connection(std::unique_ptr<SocketImpl> socket, SessionPeer peer, ClientPatience patience);
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection();

    Status open();
    std::int64_t seek(std::int64_t to, int whence);
    std::int64_t read(void* data, std::size_t length, Status& status);
    std::int64_t write(const void* data, std::size_t length, int options, Status& status);
    Status punchHole(std::uint64_t length);
    [[nodiscard]] std::uint64_t size() const { return imageSize; }
    Status close();

private:
    void connect();
    Status runGuarded(const std::function<void()>& work);
    Status endWithStatus(const Failure& failure);
    void disconnect();

    void readAll(std::span<std::uint8_t> data);
    void writeAll(std::span<const std::uint8_t> data);
    void writePart(std::span<const std::uint8_t> part);
    void queueHole(std::uint64_t length);
    void flush();
    void requireWritable() const;

    std::vector<Run> runsToWrite(std::span<const std::uint8_t> part);
    std::vector<Run> runsByDigests(std::span<const std::uint8_t> part);
    std::vector<Run> runsByReading(std::span<const std::uint8_t> part);

    std::unique_ptr<SocketImpl> socket; ///< until `open` passes it to the session
    SessionPeer peer;
    const ClientPatience patience;
    const bool isWritable;
    const bool compares;
    bool serverCompares = false;
    bool wasOpened = false;
    std::unique_ptr<Session> session;
    std::optional<NbdImage>
        image; ///< while the connection works; declared after the session, to be destroyed first
    std::uint64_t imageSize = 0; ///< bytes
    std::uint64_t position = 0;  ///< bytes, at most imageSize
    UnflushedRange unflushed;
    std::optional<Failure> flushFailure; ///< why data written before may not be on stable storage
    std::optional<Status> endStatus;     ///< why the connection has ended
};

} // namespace zephane
