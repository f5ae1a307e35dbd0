#include "seal/BootRecord.h"

#include "../ExpectedError.h"
#include "support/TestDirectory.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace tolvubd {
namespace {

using agent::test::writeFile;
using test::errorOf;

BootRecord twoVolumes() {
    return {
        {{"0f0c9f2e-57a5-4a0b-8a1c-000000000001", "LVM-abcDEF012", 1U << 30U, {{4096, 8192}, {65536, 4096}}},
         {"0f0c9f2e-57a5-4a0b-8a1c-000000000002", "LVM-x", 1U << 20U, {}}},
        {{"5dfb2cc3-01", "root-adopted"}}};
}

class BootRecords : public testing::Test {
protected:
    agent::test::TestDirectory directory;
    const std::string path = directory / "etc/boot.json";
};

TEST_F(BootRecords, ComeBackAsTheyWereWritten) {
    EXPECT_EQ(readBootRecord(path), BootRecord());
    for (const BootRecord& record : {twoVolumes(), BootRecord(), twoVolumes()}) {
        writeBootRecord(path, record);
        EXPECT_EQ(readBootRecord(path), record);
    }
}

TEST_F(BootRecords, AreLeftAloneWhenNothingHasChanged) {
    writeBootRecord(path, twoVolumes());
    struct stat before{};
    struct stat after{};
    ASSERT_EQ(::stat(path.c_str(), &before), 0);
    writeBootRecord(path, twoVolumes());
    ASSERT_EQ(::stat(path.c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino);
    writeBootRecord(path, BootRecord());
    ASSERT_EQ(::stat(path.c_str(), &after), 0);
    EXPECT_NE(before.st_ino, after.st_ino);
}

TEST_F(BootRecords, AreRefusedAtEachTruncation) {
    writeBootRecord(path, twoVolumes());
    const std::string text = agent::test::readFile(path);
    for (std::size_t length = 0; length + 2 < text.size(); ++length) {
        writeFile(path, text.substr(0, length));
        ASSERT_EQ(errorOf([&] { readBootRecord(path); }), EBADMSG) << length;
    }
}

TEST_F(BootRecords, AreRefusedWithNamesThatAShellWouldRead) {
    for (const std::string& name :
         std::vector<std::string>{"", "a b", "a;b", "$(a)", "../a", "a/b", "a\nb", std::string(128, 'a')}) {
        BootRecord record = twoVolumes();
        record.adopted[0].name = name;
        writeBootRecord(path, record);
        EXPECT_EQ(errorOf([&] { readBootRecord(path); }), EBADMSG) << name;
    }
}

TEST_F(BootRecords, AreRefusedWhenTheyAreNot) {
    agent::dir::make(directory / "etc");
    const std::string deep = R"({"format":1,"adopted":[],"volumes":[{"era_file":[[[[[0]]]]]}]})";
    for (const std::string& text : {std::string("[]"), std::string("null"), std::string("{}"), deep,
                                    std::string(R"({"format":2,"adopted":[],"volumes":[]})")}) {
        writeFile(path, text);
        EXPECT_EQ(errorOf([&] { readBootRecord(path); }), EBADMSG) << text;
    }
}

} // namespace
} // namespace tolvubd
