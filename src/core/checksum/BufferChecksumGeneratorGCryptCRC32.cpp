#include "core/checksum/BufferChecksumGeneratorGCryptCRC32.h"

#include <gcrypt.h>
#include <memory>
#include <type_traits>

namespace agent {

namespace {

constexpr std::size_t digestBytes = 4;

/// libgcrypt must be initialised once per process, by one thread, before its first use. Does nothing if other
/// code has initialised it already.
void prepareLibrary() {
    static const bool prepared = [] {
        if (gcry_control(GCRYCTL_INITIALIZATION_FINISHED_P) == 0) {
            gcry_check_version(nullptr);
            gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
        }
        return true;
    }();
    static_cast<void>(prepared);
}

} // namespace

bool BufferChecksumGeneratorGCryptCRC32::generate(const void* buffer, std::size_t size,
                                                  std::uint32_t& out) const {
    if (buffer == nullptr) {
        return false;
    }
    prepareLibrary();
    gcry_md_hd_t opened = nullptr;
    if (gcry_md_open(&opened, GCRY_MD_CRC32, 0) != 0) {
        return false;
    }
    const std::shared_ptr<std::remove_pointer_t<gcry_md_hd_t>> handle(opened, &gcry_md_close);
    gcry_md_write(handle.get(), buffer, size);
    gcry_md_ctl(handle.get(), GCRYCTL_FINALIZE, nullptr, 0);
    const unsigned char* const digest = gcry_md_read(handle.get(), GCRY_MD_CRC32);
    if (digest == nullptr) {
        return false;
    }
    std::uint32_t value = 0;
    for (std::size_t index = 0; index < digestBytes; ++index) {
        value = value << 8U | digest[index];
    }
    out = value;
    return true;
}

} // namespace agent
