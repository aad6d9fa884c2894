#include "Platform/DeviceIdentifier.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <regex>

#include <gtest/gtest.h>

#include "Support/TemporaryDirectory.h"

namespace kt {
namespace {

constexpr const char* kMachineId = "0123456789abcdef0123456789abcdef";

std::filesystem::path writeMachineId(const testing::TemporaryDirectory& directory, const std::string& contents,
                                     const std::string& name = "machine-id") {
    auto path = directory / name;
    std::ofstream(path) << contents;
    return path;
}

std::string upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::toupper(c); });
    return text;
}

TEST(DeviceIdentifierTests, IsAKeyedHashOfTheMachineIdShapedAsAVersion4UUID) {
    testing::TemporaryDirectory directory;
    auto path = writeMachineId(directory, std::string(kMachineId) + "\n");

    auto identifier = identifierForVendor("com.example.player", path);
    ASSERT_TRUE(identifier.has_value());
    // HMAC-SHA256(key: application id, message: machine id), first 16 bytes, v4 bits set.
    EXPECT_EQ(*identifier, "1D258AA5-7162-47E0-AAE8-ACB0BF1B9270");
    EXPECT_TRUE(std::regex_match(*identifier,
                                 std::regex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}")));
    std::string flattened = *identifier;
    flattened.erase(std::remove(flattened.begin(), flattened.end(), '-'), flattened.end());
    EXPECT_EQ(flattened.find(upper(kMachineId).substr(0, 8)), std::string::npos);
    EXPECT_NE(flattened, upper(kMachineId));
}

TEST(DeviceIdentifierTests, StableForOneApplicationAndDifferentBetweenApplicationsAndMachines) {
    testing::TemporaryDirectory directory;
    auto path = writeMachineId(directory, kMachineId);
    auto otherMachine = writeMachineId(directory, "fedcba9876543210fedcba9876543210", "other-machine-id");

    auto first = identifierForVendor("com.example.player", path);
    ASSERT_TRUE(first.has_value());
    EXPECT_EQ(identifierForVendor("com.example.player", path), first);
    EXPECT_NE(identifierForVendor("com.example.studio", path), first);
    EXPECT_NE(identifierForVendor("com.example.player", otherMachine), first);
}

TEST(DeviceIdentifierTests, AbsentWithoutAUsableMachineId) {
    testing::TemporaryDirectory directory;
    EXPECT_EQ(identifierForVendor("app", directory / "missing"), std::nullopt);
    EXPECT_EQ(identifierForVendor("app", writeMachineId(directory, "", "empty")), std::nullopt);
    EXPECT_EQ(identifierForVendor("app", writeMachineId(directory, " \n\n", "blank")), std::nullopt);
    EXPECT_EQ(identifierForVendor("app", writeMachineId(directory, "uninitialized\n", "first-boot")), std::nullopt);
    EXPECT_EQ(identifierForVendor("app", directory.path()), std::nullopt) << "a directory is no machine id";
}

}  // namespace
}  // namespace kt
