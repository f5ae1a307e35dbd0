#pragma once

#include "core/transport/ITransport.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace agent::contract {

/// One implementation of ITransport, with an image of its own on the far side.
/// Owns:    the far side; it outlives the transports that are made to it.
/// Threads: one.
/// Fails:   by exception, which fails the test.
class TransportSubject {
public:
    using Bytes = std::vector<std::uint8_t>;

    static constexpr std::size_t blockBytes = 4096;
    static constexpr std::size_t blocks = 16;
    static constexpr std::size_t imageBytes = blocks * blockBytes;

    virtual ~TransportSubject() = default;
    /// A transport to the image, not connected.
    virtual std::shared_ptr<core::ITransport> make() = 0;
    virtual void setImage(const Bytes& image) = 0;
    /// The whole of it, as the far side has it.
    virtual Bytes image() = 0;
    /// Says another thing after every write that has reached the far side.
    virtual std::string lastWrite() = 0;
    /// Whether a read or write that fails may return the count of what was done, where others return -1.
    [[nodiscard]] virtual bool mayFailShort() const { return false; }
    /// Whether holes may run behind, so that the next call tells of one that has failed.
    [[nodiscard]] virtual bool mayFailLate() const { return false; }
};

/// A subject of which a test can make every command fail.
/// Owns, Threads, Fails: as TransportSubject.
class BreakableSubject : public TransportSubject {
public:
    /// From now on no command is carried out, until `heal`. A connection can still be made.
    virtual void breakDown() = 0;
    virtual void heal() = 0;
    /// Whether a connection that has broken says so even when it has been closed.
    [[nodiscard]] virtual bool staysBroken() const { return false; }
};

/// How a subject is made, and what it is called among the tests.
template <typename Subject>
struct SubjectRow {
    std::string name;
    std::function<std::unique_ptr<Subject>()> make;
};

template <typename Subject>
void PrintTo(const SubjectRow<Subject>& row, std::ostream* out) {
    *out << row.name;
}

/// What the program that holds the suite has to show.
std::vector<SubjectRow<TransportSubject>> transportSubjects();
std::vector<SubjectRow<BreakableSubject>> breakableSubjects();

} // namespace agent::contract
