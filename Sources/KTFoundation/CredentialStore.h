#pragma once
// Where the signed-in user's OAuth token is kept. Absent means signed out; requests then
// go without an "Authorization" header.

#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace kt {

class KTLogger;

class KeychainCredentialStoring {
public:
    virtual ~KeychainCredentialStoring() = default;
    KeychainCredentialStoring() = default;
    KeychainCredentialStoring(const KeychainCredentialStoring&) = delete;
    KeychainCredentialStoring& operator=(const KeychainCredentialStoring&) = delete;

    /// The OAuth token, or nullopt when signed out.
    virtual std::optional<std::string> credential() const = 0;
    /// Stores the token; nullopt signs out.
    virtual void setCredential(std::optional<std::string> credential) = 0;
};

/// A token held in memory only; safe from several threads.
class InMemoryCredentialStore final : public KeychainCredentialStoring {
public:
    explicit InMemoryCredentialStore(std::optional<std::string> credential = std::nullopt)
        : credential_(std::move(credential)) {}

    std::optional<std::string> credential() const override;
    void setCredential(std::optional<std::string> credential) override;

private:
    mutable std::mutex mutex_;
    std::optional<std::string> credential_;  // guarded by mutex_
};

/// A token kept in one file readable by its owner only (mode 0600), replaced atomically
/// (temporary file, then rename) so that a crash never leaves half a token. The file is
/// read on every call, so a token written by another process (a login tool) is seen at once.
/// Tokens with control characters are refused: they would corrupt the request header.
class FileCredentialStore final : public KeychainCredentialStoring {
public:
    FileCredentialStore(std::filesystem::path file, std::shared_ptr<KTLogger> logger);
    FileCredentialStore() = delete;

    std::optional<std::string> credential() const override;
    void setCredential(std::optional<std::string> credential) override;

    const std::filesystem::path& file() const { return file_; }

private:
    const std::filesystem::path file_;
    const std::shared_ptr<KTLogger> logger_;
    mutable std::mutex mutex_;  // serialises writers of this instance
};

}  // namespace kt
