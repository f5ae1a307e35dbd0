#include "core/fs/ntfs/NTFSNameLocale.h"

#include "common/PosixError.h"

#include <cerrno>

namespace agent::core::fs {

NTFSNameLocale::NTFSNameLocale() : own(::newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr)) {
    if (own == nullptr) {
        throw PosixError("There is no locale of Unicode", errno);
    }
    before = ::uselocale(own);
}

NTFSNameLocale::~NTFSNameLocale() {
    ::uselocale(before);
    ::freelocale(own);
}

} // namespace agent::core::fs
