#include "common/AlignedBuffer.h"
#include "core/transport/IscsiLibrary.h"
#include "core/transport/Libiscsi.h"
#include "os/FileDescriptor.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <iostream>
#include <stdexcept>
#include <string>
#include <unistd.h>

/// The least that a copy of a volume's used blocks to a target can take: direct reads of at most 4 MiB and,
/// after each, one synchronous command to the target. Takes the ranges, `OFFSET LENGTH` in bytes, by line
/// from standard input; "copy" writes what was read, "compare" reads the target instead. Prints what was
/// moved and how long each side took.
namespace agent::bench {
namespace {

constexpr std::uint64_t chunkBytes = 0x400000; // as in a backup
constexpr std::size_t alignment = 4096;
constexpr const char* initiatorName = "iqn.2026-01.example:floor";

using Clock = std::chrono::steady_clock;

struct Totals {
    std::uint64_t chunks = 0;
    std::uint64_t bytes = 0;
    std::chrono::duration<double> local{};
    std::chrono::duration<double> remote{};
};

/// A disk of a target, as plainly as the library gives it.
class Disk {
public:
    Disk(const std::string& portal, const std::string& target, int lun)
        : context(iscsi_create_context(initiatorName)), lun(lun) {
        if (!context || iscsi_set_targetname(context.get(), target.c_str()) != 0 ||
            iscsi_set_session_type(context.get(), ISCSI_SESSION_NORMAL) != 0 ||
            iscsi_full_connect_sync(context.get(), portal.c_str(), lun) != 0) {
            fail("no session with " + portal);
        }
        const core::iscsi::Task task(iscsi_readcapacity16_sync(context.get(), lun));
        const auto* const capacity =
            core::iscsi::isGood(task)
                ? static_cast<const scsi_readcapacity16*>(scsi_datain_unmarshall(task.get()))
                : nullptr;
        if (capacity == nullptr || capacity->block_length == 0) {
            fail("the target doesn't tell its block size");
        }
        blockSize = capacity->block_length;
    }

    void write(std::uint64_t offset, AlignedBuffer& buffer, std::size_t length) {
        // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): the library wants other bytes
        auto* const bytes = reinterpret_cast<unsigned char*>(buffer.data());
        require(iscsi_write16_sync(context.get(), lun, offset / blockSize, bytes,
                                   static_cast<std::uint32_t>(length), static_cast<int>(blockSize), 0, 0, 0,
                                   0, 0));
    }

    void read(std::uint64_t offset, std::size_t length) {
        require(iscsi_read16_sync(context.get(), lun, offset / blockSize, static_cast<std::uint32_t>(length),
                                  static_cast<int>(blockSize), 0, 0, 0, 0, 0));
    }

    void logOut() { iscsi_logout_sync(context.get()); }

private:
    void require(scsi_task* done) {
        if (!core::iscsi::isGood(core::iscsi::Task(done))) {
            fail("the target refuses a command");
        }
    }

    [[noreturn]] void fail(const std::string& what) {
        throw std::runtime_error(what + (context ? std::string(": ") + iscsi_get_error(context.get()) : ""));
    }

    core::iscsi::Context context;
    int lun;
    std::uint32_t blockSize = 0;
};

class Floor {
public:
    Floor(const std::string& device, Disk& disk, bool isCopy)
        : volume(::open(device.c_str(), O_RDONLY | O_DIRECT | O_CLOEXEC)),
          disk(disk),
          isCopy(isCopy),
          buffer(chunkBytes, alignment) {
        if (!volume) {
            throw std::runtime_error(device + " can't be opened");
        }
    }

    void move(std::uint64_t offset, std::uint64_t length) {
        for (std::uint64_t done = 0; done < length; done += chunkBytes) {
            moveChunk(offset + done, std::min(chunkBytes, length - done));
        }
    }

    [[nodiscard]] const Totals& result() const { return totals; }

private:
    void moveChunk(std::uint64_t offset, std::size_t length) {
        const Clock::time_point begin = Clock::now();
        if (::pread(volume.get(), buffer.data(), length, static_cast<off_t>(offset)) !=
            static_cast<ssize_t>(length)) {
            throw std::runtime_error("the volume can't be read at " + std::to_string(offset));
        }
        const Clock::time_point between = Clock::now();
        if (isCopy) {
            disk.write(offset, buffer, length);
        } else {
            disk.read(offset, length);
        }
        totals.local += between - begin;
        totals.remote += Clock::now() - between;
        totals.bytes += length;
        ++totals.chunks;
    }

    os::FileDescriptor volume;
    Disk& disk;
    bool isCopy;
    AlignedBuffer buffer;
    Totals totals;
};

void run(const std::string& mode, const std::string& device, const std::string& portal,
         const std::string& target, int lun) {
    Disk disk(portal, target, lun);
    Floor floor(device, disk, mode == "copy");
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
    while (std::cin >> offset >> length) {
        floor.move(offset, length);
    }
    disk.logOut();
    const Totals& totals = floor.result();
    std::printf(R"({"chunks": %lu, "bytes": %lu, "local": %.6f, "remote": %.6f})"
                "\n",
                totals.chunks, totals.bytes, totals.local.count(), totals.remote.count());
}

} // namespace
} // namespace agent::bench

int main(int argumentCount, char** arguments) {
    if (argumentCount != 6) {
        std::fprintf(stderr, "usage: bench_copy_floor copy|compare DEVICE PORTAL TARGET LUN < RANGES\n");
        return EXIT_FAILURE;
    }
    try {
        agent::bench::run(arguments[1], arguments[2], arguments[3], arguments[4], std::atoi(arguments[5]));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench_copy_floor: %s\n", error.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
