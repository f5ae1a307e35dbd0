#include "info/log/Reason.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

/// Compares the table of reasons in docs/operations.md, which authors of clients rely on, with the code, and
/// checks that the code is consistent.
namespace agent::info {
namespace {

// lab/namespace runs the tests in the top directory of the tree.
constexpr const char* document = "docs/operations.md";
constexpr const char* sources = "src";

std::string contentOf(const std::filesystem::path& path) {
    const std::ifstream file(path);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

std::string rowOf(const Reason& each) {
    std::ostringstream row;
    row << "| `" << each.code << "` | " << kindName(each.kind) << " | " << each.meaning << " | "
        << each.remedy << " |";
    return row.str();
}

/// The codes of all `reason("...")` in the sources.
std::set<std::string> usedCodes() {
    static const std::regex use(R"code(\breason\("([a-z-]+)"\))code");
    std::set<std::string> codes;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(sources)) {
        if (entry.path().extension() == ".cpp") {
            const std::string text = contentOf(entry.path());
            for (std::sregex_iterator found(text.begin(), text.end(), use), end; found != end; ++found) {
                codes.insert((*found)[1]);
            }
        }
    }
    return codes;
}

TEST(ReasonDocument, HasTheRowsOfTheTableAndNoOther) {
    static const std::regex form(R"(\| `[a-z-]+` \| (fallback|failure) \|.*)");
    std::ifstream file(document);
    std::vector<std::string> documented;
    for (std::string line; std::getline(file, line);) {
        if (std::regex_match(line, form)) {
            documented.push_back(line);
        }
    }
    std::vector<std::string> expected;
    std::ranges::transform(reasons, std::back_inserter(expected), rowOf);
    EXPECT_EQ(documented, expected);
}

TEST(ReasonDocument, EachCodeIsToldBySomeStatement) {
    std::set<std::string> known;
    for (const Reason& each : reasons) {
        known.emplace(each.code);
    }
    EXPECT_EQ(usedCodes(), known);
}

} // namespace
} // namespace agent::info
