#pragma once

#include "core/transport/IscsiLibrary.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace agent::bench {

/// A disk of a target, by the plain calls of the library.
/// Owns:    the session with the target, which needs no account.
/// Threads: one at a time.
/// Fails:   throws std::runtime_error; the session can't be used any more then.
class Disk {
public:
    /// The library's callback for each answer: a SCSI status, the task, which the callee owns, and `place`.
    /// It is called by the destructor at the latest.
    using Answered = void (*)(iscsi_context* context, int status, void* task, void* place);

    Disk(const std::string& portal, const std::string& target, int lun);

    /// Sends one command and waits for its answer.
    void write(std::uint64_t offset, std::byte* data, std::size_t length);
    void read(std::uint64_t offset, std::size_t length);

    /// Sends one more command without waiting. `data` must stay valid until the answer.
    void beginWrite(std::uint64_t offset, std::byte* data, std::size_t length, Answered answered,
                    void* place);
    void beginRead(std::uint64_t offset, std::byte* data, std::size_t length, Answered answered, void* place);
    /// Waits until something can be sent or received, and handles it.
    void serve();

    void logOut();

private:
    [[nodiscard]] std::uint64_t blockAt(std::uint64_t offset) const { return offset / blockSize; }
    void require(bool isDone, const char* what);

    core::iscsi::Context context;
    int lun;
    std::uint32_t blockSize = 0;
};

} // namespace agent::bench
