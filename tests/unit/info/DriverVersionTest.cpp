#include "info/DriverVersion.h"

#include <gtest/gtest.h>

namespace agent::info {
namespace {

TEST(DriverVersion, NumbersBetweenDots) {
    EXPECT_EQ(scanDriverVersion("1.2.3.4"), (DriverVersion{1, 2, 3, 4}));
    EXPECT_EQ(scanDriverVersion("0.9.16"), (DriverVersion{0, 9, 16, 0}));
    EXPECT_EQ(scanDriverVersion("10.20"), (DriverVersion{10, 20, 0, 0}));
    EXPECT_EQ(scanDriverVersion("1.2.3.4.5"), (DriverVersion{1, 2, 3, 4}));
}

TEST(DriverVersion, WhatFollowsTheLastNumberIsZero) {
    EXPECT_EQ(scanDriverVersion(""), DriverVersion{});
    EXPECT_EQ(scanDriverVersion("lab-1.0"), DriverVersion{});
    EXPECT_EQ(scanDriverVersion("1.2-rc3.4"), (DriverVersion{1, 2, 0, 0}));
    EXPECT_EQ(scanDriverVersion("1..2"), (DriverVersion{1, 0, 0, 0}));
    EXPECT_EQ(scanDriverVersion("1.2."), (DriverVersion{1, 2, 0, 0}));
    EXPECT_EQ(scanDriverVersion("1.99999999999.3"), (DriverVersion{1, 0, 0, 0}));
    EXPECT_EQ(scanDriverVersion("1.-2.3"), (DriverVersion{1, -2, 3, 0}));
}

} // namespace
} // namespace agent::info
