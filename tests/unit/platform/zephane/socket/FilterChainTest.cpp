#include "zephane/socket/FilterChain.h"

#include "zephane/wire/Limits.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace zephane {
namespace {

/// Doubles each byte. Outputs a mark first, then one byte at a time.
class Doubler : public Filter {
public:
    explicit Doubler(char mark) : mark(mark) {}

    void feed(std::span<const std::uint8_t> input) override {
        for (const std::uint8_t byte : input) {
            left += {mark, static_cast<char>(byte), static_cast<char>(byte)};
        }
    }

    std::span<const std::uint8_t> next() override {
        if (left.empty()) {
            return {};
        }
        current = static_cast<std::uint8_t>(left.front());
        left.erase(0, 1);
        return {&current, 1};
    }

private:
    char mark;
    std::string left;
    std::uint8_t current = 0;
};

std::string pass(FilterChain& chain, const std::string& text) {
    const std::vector<std::uint8_t> input(text.begin(), text.end());
    chain.feed(input);
    std::string output;
    for (auto piece = chain.next(); !piece.empty(); piece = chain.next()) {
        EXPECT_LE(piece.size(), wire::frameBytes);
        output.append(piece.begin(), piece.end());
    }
    return output;
}

TEST(FilterChain, WithoutFiltersChangesNothing) {
    FilterChain chain({});
    EXPECT_EQ(pass(chain, "abc"), "abc");
    EXPECT_EQ(pass(chain, ""), "");
    const std::string longer(2 * wire::frameBytes + 1, 'x');
    EXPECT_EQ(pass(chain, longer), longer);
}

TEST(FilterChain, PassesTheFiltersInTheirOrder) {
    FilterChain chain({std::make_shared<Doubler>('1'), std::make_shared<Doubler>('2')});
    EXPECT_EQ(pass(chain, "a"), "2112aa2aa");
    EXPECT_EQ(pass(chain, ""), "");
    EXPECT_EQ(pass(chain, "bc"), "2112bb2bb2112cc2cc");
}

} // namespace
} // namespace zephane
