#include "common/Exceptions.h"
#include "common/PosixError.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <type_traits>

namespace agent {
namespace {

TEST(PosixError, TellsMessageSystemTextAndCode) {
    const PosixError error("open(\"/a\") failed", ENOENT);
    EXPECT_STREQ(error.what(), "open(\"/a\") failed: No such file or directory | ERROR(Posix) : 2 (0x2)");
    EXPECT_EQ(error.code(), ENOENT);
}

TEST(PosixError, ShowsTheCodeInHexadecimalToo) {
    EXPECT_STREQ(PosixError("x", ENOSPC).what(), "x: No space left on device | ERROR(Posix) : 28 (0x1c)");
}

TEST(PosixError, CopesWithAnUnknownNumber) {
    EXPECT_STREQ(PosixError("x", 9999).what(), "x: Unknown error 9999 | ERROR(Posix) : 9999 (0x270f)");
}

TEST(LibraryError, WithoutTranslatorTheErrorIsUnknown) {
    const exception::generic_library_error<unsigned> error("read", "GCRYPT", 17U, {});
    EXPECT_STREQ(error.what(), "read: Unknown error | ERROR(GCRYPT) : 17 (0x11)");
}

TEST(LibraryError, NegativeCodesKeepTheirSign) {
    const exception::generic_library_error<int> error("handshake", "GnuTls", -50,
                                                      [](int) { return std::string("bad"); });
    EXPECT_STREQ(error.what(), "handshake: bad | ERROR(GnuTls) : -50 (0xffffffce)");
}

TEST(Exceptions, FormOneFamily) {
    EXPECT_TRUE((std::is_base_of_v<std::invalid_argument, exception::bad_request>));
    EXPECT_TRUE((std::is_base_of_v<std::runtime_error, exception::bad_response>));
    EXPECT_TRUE((std::is_base_of_v<std::runtime_error, exception::library_error>));
    EXPECT_TRUE((std::is_base_of_v<exception::library_error, exception::generic_library_error<int>>));
    EXPECT_TRUE((std::is_base_of_v<exception::generic_library_error<int>, PosixError>));
    EXPECT_TRUE((std::is_base_of_v<std::runtime_error, exception::transport_connection_error>));
}

} // namespace
} // namespace agent
