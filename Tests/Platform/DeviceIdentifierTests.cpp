#include "Platform/DeviceIdentifier.h"

#include <fstream>

#include <gtest/gtest.h>

#include "Support/TemporaryDirectory.h"

namespace kt {
namespace {

std::filesystem::path writeMachineId(const testing::TemporaryDirectory& directory, const std::string& name,
                                     const std::string& contents) {
    auto path = directory / name;
    std::ofstream(path) << contents;
    return path;
}

TEST(DeviceIdentifierTests, IsAKeyedHashOfTheMachineIdPerApplication) {
    testing::TemporaryDirectory directory;
    const auto path = writeMachineId(directory, "machine-id", "0123456789abcdef0123456789abcdef\n");
    const auto otherMachine = writeMachineId(directory, "other", "fedcba9876543210fedcba9876543210");

    // HMAC-SHA256(key: application id, message: machine id), first 16 bytes, v4 bits set:
    // the machine id itself never leaves the machine.
    EXPECT_EQ(identifierForVendor("com.example.player", path), "1D258AA5-7162-47E0-AAE8-ACB0BF1B9270");
    EXPECT_NE(identifierForVendor("com.example.studio", path), identifierForVendor("com.example.player", path));
    EXPECT_NE(identifierForVendor("com.example.player", otherMachine),
              identifierForVendor("com.example.player", path));
}

TEST(DeviceIdentifierTests, AbsentWithoutAUsableMachineId) {
    testing::TemporaryDirectory directory;
    for (const auto& path : {directory / "missing", directory.path(), writeMachineId(directory, "empty", ""),
                             writeMachineId(directory, "blank", " \n\n"),
                             writeMachineId(directory, "first-boot", "uninitialized\n")})
        EXPECT_EQ(identifierForVendor("app", path), std::nullopt) << path;
}

}  // namespace
}  // namespace kt
