#pragma once

#include "zephane/ftp/DifferingRuns.h"
#include "zephane/ftp/Failure.h"
#include "zephane/ftp/Session.h"
#include "zephane/ftp/Unflushed.h"
#include "zephane/ftp/ZephaneFTPClient.h"
#include "zephane/nbd/NbdImage.h"

#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace zephane {

/// What a client is, wherever it is moved to. See ZephaneFTPClient, whose calls these are.
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
    Status attempt(const std::function<void()>& work);
    Status explain(const Failure& failure);
    void sayGoodBye();

    void readAll(std::span<std::uint8_t> data);
    void writeAll(std::span<const std::uint8_t> data);
    void writePart(std::span<const std::uint8_t> part);
    void punch(std::uint64_t length);
    void flush();
    void requireWritable() const;

    std::vector<Run> runsToWrite(std::span<const std::uint8_t> part);
    std::vector<Run> runsByDigests(std::span<const std::uint8_t> part);
    std::vector<Run> runsByReading(std::span<const std::uint8_t> part);

    std::unique_ptr<SocketImpl> socket; ///< until `open` hands it on
    SessionPeer peer;
    const ClientPatience patience;
    const bool isWritable;
    const bool compares;
    bool serverCompares = false;
    bool wasOpened = false;
    std::unique_ptr<Session> session;
    std::optional<NbdImage>
        image; ///< as long as the connection works; behind the session, which it ends before
    std::uint64_t imageSize = 0; ///< bytes
    std::uint64_t position = 0;  ///< bytes, not behind the end
    Unflushed unflushed;
    std::optional<Failure> lost;  ///< why what has been written may not be stored
    std::optional<Status> broken; ///< why there is no connection any more
};

} // namespace zephane
