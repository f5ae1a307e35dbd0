#include "capture/Compare.h"

#include "CowFile.h"
#include "ExpectedError.h"
#include "support/TestDirectory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

namespace tolvubd {
namespace {

using Words = std::vector<std::uint64_t>;

constexpr std::uint64_t piece = std::uint64_t{4} << 20;

/// A sparse image file, and a copy of its bytes in memory.
class TestImage {
public:
    TestImage(std::string path, std::uint64_t size) : path(std::move(path)), bytes(size) {
        std::ofstream(this->path).close();
        std::filesystem::resize_file(this->path, size);
    }

    void write(std::uint64_t offset, const std::string& text) {
        std::copy(text.begin(), text.end(), bytes.begin() + static_cast<std::ptrdiff_t>(offset));
        std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(static_cast<std::streamoff>(offset));
        file << text;
    }

    const std::string path;
    std::vector<char> bytes;
};

Words naiveComparison(const TestImage& one, const TestImage& other) {
    Words words(cow::unitsOf(one.bytes.size()));
    for (std::size_t i = 0; i < one.bytes.size(); ++i) {
        if (one.bytes[i] != other.bytes[i]) {
            words[i / cow::unitSize] = 1;
        }
    }
    return words;
}

class Compare : public ::testing::TestWithParam<std::uint64_t> {
protected:
    [[nodiscard]] const TestImage& before() const { return first; }
    TestImage& before() { return first; }
    TestImage& after() { return second; }

    std::vector<bool>& fresh() { return freshUnits; }

    void expectNaiveResult() {
        Words words;
        const std::uint64_t changed =
            compareCaptures(first.path, second.path, GetParam(), freshUnits, [&](auto unit, auto part) {
                EXPECT_EQ(unit, words.size()) << "a gap in the table";
                words.insert(words.end(), part.begin(), part.end());
            });
        Words expected = naiveComparison(first, second);
        std::ranges::transform(expected, freshUnits, expected.begin(),
                               [](std::uint64_t word, bool isFresh) { return isFresh ? 1U : word; });
        EXPECT_EQ(words, expected);
        EXPECT_EQ(changed, static_cast<std::uint64_t>(std::ranges::count(words, 1U)));
    }

private:
    agent::test::TestDirectory directory;
    TestImage first{(directory / "before").str(), GetParam()};
    TestImage second{(directory / "after").str(), GetParam()};
    std::vector<bool> freshUnits = std::vector<bool>(cow::unitsOf(GetParam()));
};

TEST_P(Compare, FindsNothingInHoles) {
    expectNaiveResult();
}

TEST_P(Compare, FindsTheFirstAndTheLastByte) {
    before().write(0, "x");
    after().write(GetParam() - 1, "x");
    expectNaiveResult();
}

TEST_P(Compare, TakesAHoleForZeros) {
    before().write(0, std::string(1, '\0'));
    after().write(GetParam() / 2, std::string(1, '\0'));
    expectNaiveResult();
}

TEST_P(Compare, AgreesWithTheNaiveWayOnRandomChanges) {
    std::mt19937 random(4711); // NOLINT(cert-msc51-cpp): the same changes each time
    std::uniform_int_distribution<std::uint64_t> anywhere(0, GetParam() - 1);
    for (int i = 0; i < 200; ++i) {
        const std::string text(1 + anywhere(random) % 10'000, static_cast<char>('a' + i % 26));
        const std::uint64_t offset = anywhere(random);
        const std::string part = text.substr(0, GetParam() - offset);
        if (i % 3 != 0) {
            before().write(offset, part);
        }
        if (i % 3 != 1) {
            after().write(offset, part);
        }
    }
    expectNaiveResult();
}

TEST_P(Compare, MarksWhatIsFreshWhereverItIs) {
    before().write(0, "x");
    fresh().front() = true;
    fresh()[fresh().size() / 2] = true;
    fresh().back() = true;
    expectNaiveResult();
}

INSTANTIATE_TEST_SUITE_P(Sizes, Compare,
                         ::testing::Values(512, cow::unitSize, cow::unitSize + 512, piece, piece + 512,
                                           3 * piece + cow::unitSize - 512));

TEST(CompareSizes, RefusesAnImageOfAnotherSize) {
    const agent::test::TestDirectory directory;
    const TestImage small((directory / "small").str(), cow::unitSize);
    const TestImage large((directory / "large").str(), 2 * cow::unitSize);
    const TableWriter ignore = [](auto, auto) {};
    const auto compare = [&](const TestImage& one, const TestImage& other) {
        return test::errorOf([&] { compareCaptures(one.path, other.path, cow::unitSize, {false}, ignore); });
    };
    EXPECT_EQ(compare(small, small), 0);
    EXPECT_EQ(compare(small, large), ESTALE);
    EXPECT_EQ(compare(large, small), ESTALE);
}

} // namespace
} // namespace tolvubd
