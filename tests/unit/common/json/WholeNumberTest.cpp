#include "common/json/WholeNumber.h"

#include "support/Messages.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdint>

namespace agent {
namespace {

using nlohmann::json;
using test::messageOf;

TEST(WholeNumber, KeepsWhatFits) {
    EXPECT_EQ(wholeNumber<std::int32_t>(json(-2147483648)), INT32_MIN);
    EXPECT_EQ(wholeNumber<std::int32_t>(json(2147483647U)), INT32_MAX);
    EXPECT_EQ(wholeNumber<std::uint64_t>(json(UINT64_MAX)), UINT64_MAX);
    EXPECT_EQ(wholeNumber<std::uint64_t>(json(0)), 0U);
    EXPECT_EQ(wholeNumber<std::int64_t>(json(INT64_MIN)), INT64_MIN);
}

TEST(WholeNumber, CutsFractionsOff) {
    EXPECT_EQ(wholeNumber<std::int32_t>(json(90.5)), 90);
    EXPECT_EQ(wholeNumber<std::int32_t>(json(-90.5)), -90);
    EXPECT_EQ(wholeNumber<std::int32_t>(json(2147483647.9)), INT32_MAX);
    EXPECT_EQ(wholeNumber<std::int32_t>(json(-2147483648.9)), INT32_MIN);
    EXPECT_EQ(wholeNumber<std::uint64_t>(json(-0.5)), 0U);
}

TEST(WholeNumber, HasNothingForWhatDoesNotFit) {
    for (const json& value : {json(2147483648), json(-2147483649), json(UINT64_MAX), json(2147483648.0),
                              json(-2147483649.0), json(1e300), json(-1e300)}) {
        EXPECT_EQ(wholeNumber<std::int32_t>(value), std::nullopt) << value;
        EXPECT_EQ(messageOf<json::out_of_range>([&] { (void)requireWholeNumber<std::int32_t>(value); }),
                  "[json.exception.out_of_range.406] number out of range: " + value.dump());
    }
    for (const json& value : {json(-1), json(INT64_MIN), json(-1.0), json(18446744073709551616.0)}) {
        EXPECT_EQ(wholeNumber<std::uint64_t>(value), std::nullopt) << value;
    }
    EXPECT_EQ(wholeNumber<std::int64_t>(json(9223372036854775808U)), std::nullopt);
    EXPECT_EQ(wholeNumber<std::int64_t>(json(9223372036854775808.0)), std::nullopt);
}

TEST(WholeNumber, MayHaveALimit) {
    EXPECT_EQ(requireWholeNumber<std::uint64_t>(json(7.9), 7), 7U);
    EXPECT_EQ(messageOf<json::out_of_range>([] { (void)requireWholeNumber<std::uint64_t>(json(8), 7); }),
              "[json.exception.out_of_range.406] number out of range: 8");
}

TEST(WholeNumber, HasNothingForOtherTypes) {
    const json values = {nullptr, true, "12", json::array(), json::object()};
    for (const json& value : values) {
        EXPECT_EQ(wholeNumber<std::int32_t>(value), std::nullopt) << value;
        EXPECT_EQ(messageOf<json::type_error>([&] { (void)requireWholeNumber<std::uint64_t>(value); }),
                  std::string("[json.exception.type_error.302] type must be number, but is ") +
                      value.type_name());
    }
}

} // namespace
} // namespace agent
