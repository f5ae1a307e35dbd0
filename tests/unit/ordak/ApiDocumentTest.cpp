#include "ordak/APICall.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <string>
#include <vector>

/// Compares the table of routes in docs/api.md, which authors of clients rely on, with the code.
namespace agent::ordak {
namespace {

struct Row {
    std::string name;
    std::string method;
    std::string url;
};

std::vector<Row> documentedRoutes() {
    static const std::regex form(R"(\| `(\w+)` \| (\w+) \| `(\S+)` \|.*)");
    std::ifstream document("docs/api.md"); // lab/namespace runs the tests in the top directory of the tree
    std::vector<Row> rows;
    std::smatch parts;
    for (std::string line; std::getline(document, line);) {
        if (std::regex_match(line, parts, form)) {
            rows.push_back({parts[1], parts[2], parts[3]});
        }
    }
    return rows;
}

TEST(ApiDocument, EachRowIsARouteOfThatName) {
    for (const Row& row : documentedRoutes()) {
        EXPECT_EQ(apiCallName(classifyAPICall(row.method, row.url)), row.name)
            << row.method << " " << row.url;
    }
}

TEST(ApiDocument, EachCallHasItsRow) {
    std::map<std::string, int> rowsOf;
    for (const Row& row : documentedRoutes()) {
        ++rowsOf[row.name];
    }
    for (int call = 0; call < static_cast<int>(APICall::invalid); ++call) {
        const std::string name = apiCallName(static_cast<APICall>(call));
        EXPECT_EQ(rowsOf[name], 1) << name;
    }
    EXPECT_EQ(rowsOf.size(), static_cast<std::size_t>(APICall::invalid));
}

} // namespace
} // namespace agent::ordak
