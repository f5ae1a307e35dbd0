#include "bench/copy/CommandStream.h"

#include "core/transport/Libiscsi.h"

#include <algorithm>
#include <span>
#include <stdexcept>
#include <utility>

namespace agent::bench {

namespace {

constexpr std::size_t alignment = 4096;
constexpr std::byte noise{0xA5};

} // namespace

CommandStream::CommandStream(Disk disk, Direction direction, std::size_t commandBytes, std::size_t depth)
    : direction(direction),
      commandBytes(commandBytes),
      buffer(commandBytes * depth, alignment),
      disk(std::move(disk)) {
    const std::span bytes(buffer.data(), buffer.size());
    std::ranges::fill(bytes, noise);
    slots.reserve(depth);
    for (std::size_t number = 0; number < depth; ++number) {
        slots.push_back({.stream = this, .data = &bytes[number * commandBytes]});
        free.push_back(&slots.back());
    }
}

void CommandStream::move(std::uint64_t offset, std::uint64_t length) {
    for (std::uint64_t done = 0; done < length; done += commandBytes) {
        send(offset + done, std::min<std::uint64_t>(commandBytes, length - done));
    }
}

void CommandStream::finish() {
    while (free.size() < slots.size()) {
        serve();
    }
}

void CommandStream::send(std::uint64_t offset, std::size_t length) {
    while (free.empty()) {
        serve();
    }
    Slot* const slot = free.back();
    free.pop_back();
    const auto begin = direction == Direction::write ? &Disk::beginWrite : &Disk::beginRead;
    (disk.*begin)(offset, slot->data, length, &CommandStream::answered, slot);
}

void CommandStream::serve() {
    disk.serve();
    if (isRefused) {
        throw std::runtime_error("the target refuses a command");
    }
}

void CommandStream::answered(iscsi_context* /*context*/, int status, void* task, void* place) {
    const core::iscsi::Task done(static_cast<scsi_task*>(task));
    auto* const slot = static_cast<Slot*>(place);
    slot->stream->isRefused |= status != SCSI_STATUS_GOOD;
    slot->stream->free.push_back(slot);
}

} // namespace agent::bench
