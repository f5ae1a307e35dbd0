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
/// Owns:    the far side; it must outlive the transports made for it.
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
    /// The whole image, as stored on the far side.
    virtual Bytes image() = 0;
    /// Returns a different text after every write that has reached the far side.
    virtual std::string lastWrite() = 0;
    /// Whether a failing read or write may return how much was done, where others return -1.
    [[nodiscard]] virtual bool mayFailShort() const { return false; }
    /// Whether holes may be punched asynchronously, so that the next call reports a failure.
    [[nodiscard]] virtual bool mayFailLate() const { return false; }
};

/// A subject that can make every command fail.
/// Owns:    the far side; it must outlive the transports made for it.
/// Threads: one.
/// Fails:   by exception, which fails the test.
class BreakableSubject : public TransportSubject {
public:
    /// From now on every command fails, until `stopFailing` is called. Connecting still works.
    virtual void startFailing() = 0;
    virtual void stopFailing() = 0;
    /// Whether a broken connection still reports the failure after it has been closed.
    [[nodiscard]] virtual bool staysBroken() const { return false; }
};

/// How to make a subject, and its name in test names.
template <typename Subject>
struct SubjectRow {
    std::string name;
    std::function<std::unique_ptr<Subject>()> make;
};

template <typename Subject>
void PrintTo(const SubjectRow<Subject>& row, std::ostream* out) {
    *out << row.name;
}

/// Each test program that includes the suite defines these: the subjects that it tests.
std::vector<SubjectRow<TransportSubject>> transportSubjects();
std::vector<SubjectRow<BreakableSubject>> breakableSubjects();

} // namespace agent::contract
