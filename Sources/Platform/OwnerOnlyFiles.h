#pragma once
// Files and folders only their owner can read: what the SDK keeps (session ids, consent,
// queued requests with their headers) is nobody else's business on a shared machine.

#include <filesystem>
#include <string>

namespace kt {

/// Creates every missing folder of `path` with mode 0700 (existing ones are left as they
/// are, but `path` itself is set to 0700). False, with the reason in `error`, when `path`
/// is not a folder afterwards.
bool createOwnerOnlyDirectories(const std::filesystem::path& path, std::string* error = nullptr);

/// Creates `path` empty with mode 0600 if it does not exist, and sets an existing file to
/// 0600. Files SQLite makes beside a database (journals) take the database's mode, so doing
/// this before opening one keeps them owner-only too. Never follows a symbolic link.
bool ensureOwnerOnlyFile(const std::filesystem::path& path, std::string* error = nullptr);

}  // namespace kt
