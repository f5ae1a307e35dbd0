#include "common/PosixError.h"
#include "info/CowFile.h"
#include "info/log/Logger.h"
#include "os/FileDescriptor.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <unistd.h>

/// Arbitrary bytes as a CoW file: they must be refused with one of the two exceptions that callers handle, or
/// yield valid numbers.
namespace {

/// A file that each input is written to. CoW files are opened by path without following symbolic links.
class CowFileOnDisk {
public:
    CowFileOnDisk() : file(::mkstemp(name.data())) {}
    CowFileOnDisk(const CowFileOnDisk&) = delete;
    CowFileOnDisk& operator=(const CowFileOnDisk&) = delete;
    ~CowFileOnDisk() { ::unlink(name.c_str()); }

    void put(const std::uint8_t* data, std::size_t size) const {
        if (::ftruncate(file.get(), 0) != 0 ||
            ::pwrite(file.get(), data, size, 0) != static_cast<ssize_t>(size)) {
            std::abort();
        }
    }
    [[nodiscard]] const std::string& path() const { return name; }

private:
    std::string name = "/dev/shm/cow_file_fuzzer.XXXXXX";
    os::FileDescriptor file;
};

void require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const CowFileOnDisk file;
    file.put(data, size);
    agent::info::Logger logger{agent::info::PrinterFunction()};
    try {
        const agent::info::CowFile cow(logger, file.path());
        require(cow.getSnapshotUuid().size() == 36);
        require(cow.getBitmapLength() <= size && cow.getBitmapEntries() * 8 <= size);
        require(size <= cow.getBitmapOffset() || cow.getBitmapOffset() + cow.getBitmapLength() == size);
    } catch (const agent::PosixError&) {
        require(size < 64);
    } catch (const std::logic_error&) {
        require(size >= 64);
    }
    return 0;
}
