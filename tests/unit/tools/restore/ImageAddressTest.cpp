#include "tools/restore/ImageAddress.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace restore {
namespace {

TEST(ImageAddress, IsThePathOfAFile) {
    const ImageAddress address = parseImageAddress("/srv/images/a?offset=512");
    EXPECT_EQ(address.kind, ImageAddress::Kind::file);
    EXPECT_EQ(address.path, "/srv/images/a?offset=512");
    EXPECT_EQ(address.offset, 0U);
    EXPECT_FALSE(address.wantsSecret());
}

TEST(ImageAddress, IsALun) {
    const ImageAddress address =
        parseImageAddress("iscsi://bek@backup.example:3261/iqn.2026-01.example:srv/7?offset=1048576");
    EXPECT_EQ(address.kind, ImageAddress::Kind::iscsi);
    EXPECT_EQ(address.user, "bek");
    EXPECT_EQ(address.host, "backup.example");
    EXPECT_EQ(address.port, 3261);
    EXPECT_EQ(address.target, "iqn.2026-01.example:srv");
    EXPECT_EQ(address.lun, 7);
    EXPECT_EQ(address.offset, 1'048'576U);
    EXPECT_TRUE(address.wantsSecret());
}

TEST(ImageAddress, HasTheProtocolsOwnPort) {
    const ImageAddress address = parseImageAddress("iscsi://[::1]/iqn.2026-01.example:srv/0");
    EXPECT_EQ(address.host, "::1");
    EXPECT_EQ(address.port, 3260);
    EXPECT_FALSE(address.wantsSecret());
    EXPECT_EQ(parseImageAddress("zephane://h/a/1").port, 25568);
}

TEST(ImageAddress, IsAnImageOfTheFileProtocol) {
    const ImageAddress address = parseImageAddress("zephane://h:4000/servers/web/18446744073709551615");
    EXPECT_EQ(address.kind, ImageAddress::Kind::zephane);
    EXPECT_EQ(address.path, "servers/web");
    EXPECT_EQ(address.volumeId, 18'446'744'073'709'551'615U);
    EXPECT_TRUE(address.wantsSecret());
}

TEST(ImageAddress, IsAnExportAsItsLibraryKnowsIt) {
    for (const char* text :
         {"nbd://h/x", "nbds://h/x", "nbd+unix:///x?socket=/run/s", "nbds+unix:///?socket=/s"}) {
        EXPECT_EQ(parseImageAddress(text).kind, ImageAddress::Kind::nbd) << text;
        EXPECT_EQ(parseImageAddress(text).text, text);
    }
}

TEST(ImageAddress, IsRefusedWithAReason) {
    for (const char* text :
         {"", "iscsi://", "iscsi://h", "iscsi://h/iqn.a", "iscsi://h/iqn.a/", "iscsi://h/iqn.a/x",
          "iscsi://h/iqn.a/-1", "iscsi://h/iqn.a/16384", "iscsi://h:0/iqn.a/1", "iscsi://h:65536/iqn.a/1",
          "iscsi://h/iqn.a/1?offset=7", "iscsi://h/iqn.a/1?offset=", "iscsi://h/iqn.a/1?size=512",
          "iscsi://h/iqn.a/1?offset=99999999999999999999", "zephane://h/1",
          "zephane://h/a/18446744073709551616", "zephane://h/a/1x"}) {
        EXPECT_THROW(parseImageAddress(text), std::invalid_argument) << text;
    }
}

TEST(ImageAddress, HasNoPassword) {
    try {
        parseImageAddress("iscsi://bek:secret@h/iqn.a/1");
        FAIL();
    } catch (const std::invalid_argument& error) {
        EXPECT_NE(std::string(error.what()).find("--password-file"), std::string::npos);
    }
}

} // namespace
} // namespace restore
