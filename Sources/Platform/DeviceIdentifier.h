#pragma once
// The per-application device identifier: stable for one application on one machine,
// different between applications, and never the machine id itself.

#include <filesystem>
#include <optional>
#include <string>

namespace kt {

/// An upper-case hyphenated UUID string (version 4 layout) made from HMAC-SHA256 of the
/// machine id, keyed by `applicationId`. nullopt when the machine id file is missing,
/// empty or not yet initialised.
std::optional<std::string> identifierForVendor(const std::string& applicationId,
                                               const std::filesystem::path& machineIdPath = "/etc/machine-id");

}  // namespace kt
