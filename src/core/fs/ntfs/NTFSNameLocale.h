#pragma once

#include <clocale>

namespace agent::core::fs {

/// While an object exists, its thread compares and converts names as Unicode, whatever the locale of the
/// process is.
/// Owns:    a locale; the destructor restores the thread's previous locale.
/// Threads: changes only the thread that constructs it, which must also destroy it.
/// Fails:   the constructor throws PosixError if the system has no such locale.
class NTFSNameLocale {
public:
    NTFSNameLocale();
    ~NTFSNameLocale();
    NTFSNameLocale(const NTFSNameLocale&) = delete;
    NTFSNameLocale& operator=(const NTFSNameLocale&) = delete;

private:
    locale_t own;
    locale_t before = nullptr; // the thread's previous locale
};

} // namespace agent::core::fs
