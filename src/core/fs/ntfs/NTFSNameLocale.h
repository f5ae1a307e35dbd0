#pragma once

#include <clocale>

namespace agent::core::fs {

/// While there is one, names are compared and converted as Unicode has it, whatever the language of the
/// process is.
/// Owns:    a locale.
/// Threads: that which makes it, alone; others keep theirs.
/// Fails:   PosixError if the system has no such locale.
class NTFSNameLocale {
public:
    NTFSNameLocale();
    ~NTFSNameLocale();
    NTFSNameLocale(const NTFSNameLocale&) = delete;
    NTFSNameLocale& operator=(const NTFSNameLocale&) = delete;

private:
    locale_t own;
    locale_t before = nullptr; // that the thread had
};

} // namespace agent::core::fs
