#include "KTAnalytics/KTFoundation/CredentialStore.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "KTAnalytics/KTFoundation/LogMacros.h"
#include "KTAnalytics/Platform/Fatal.h"

namespace kt {

namespace {

constexpr const char* kSource = "Sources/KTFoundation/CredentialStore";
// A token is a few hundred bytes; anything far larger is not a token file.
constexpr std::size_t kLargestToken = 64 * 1024;

bool hasControlCharacters(std::string_view text) {
    return std::any_of(text.begin(), text.end(), [](char c) {
        auto u = static_cast<unsigned char>(c);
        return u < 0x20 || u == 0x7F;
    });
}

std::string_view trimmedTrailingWhitespace(std::string_view text) {
    // A token file written by hand usually ends with a line feed.
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' ' || text.back() == '\t'))
        text.remove_suffix(1);
    return text;
}

bool writeAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        ssize_t written = ::write(fd, bytes.data(), bytes.size());
        if (written < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

}  // namespace

std::optional<std::string> InMemoryCredentialStore::credential() const {
    std::lock_guard lock(mutex_);
    return credential_;
}

void InMemoryCredentialStore::setCredential(std::optional<std::string> credential) {
    std::lock_guard lock(mutex_);
    credential_ = std::move(credential);
}

FileCredentialStore::FileCredentialStore(std::filesystem::path file, std::shared_ptr<KTLogger> logger)
    : file_(std::move(file)), logger_(logger ? std::move(logger) : KTLogger::null()) {
    KT_PARAMETER_ASSERT_TEXT(!file_.empty(), "file");
}

std::optional<std::string> FileCredentialStore::credential() const {
    int fd = ::open(file_.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        if (errno != ENOENT)
            KT_LOG(logger_, 3, kSource, "-[FileCredentialStore credential]", "Can't open credential file {}: {}",
                   file_.string(), std::strerror(errno));
        return std::nullopt;
    }
    std::string contents;
    char buffer[4096];
    for (;;) {
        ssize_t count = ::read(fd, buffer, sizeof buffer);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0) {
            KT_LOG(logger_, 3, kSource, "-[FileCredentialStore credential]", "Can't read credential file {}: {}",
                   file_.string(), std::strerror(errno));
            ::close(fd);
            return std::nullopt;
        }
        if (count == 0)
            break;
        contents.append(buffer, static_cast<std::size_t>(count));
        if (contents.size() > kLargestToken) {
            KT_LOG(logger_, 3, kSource, "-[FileCredentialStore credential]",
                   "Credential file {} is too large to hold a token", file_.string());
            ::close(fd);
            return std::nullopt;
        }
    }
    ::close(fd);

    std::string_view token = trimmedTrailingWhitespace(contents);
    if (token.empty())
        return std::nullopt;
    if (hasControlCharacters(token)) {
        KT_LOG(logger_, 3, kSource, "-[FileCredentialStore credential]",
               "Credential file {} holds control characters; ignoring it", file_.string());
        return std::nullopt;
    }
    return std::string(token);
}

void FileCredentialStore::setCredential(std::optional<std::string> credential) {
    std::lock_guard lock(mutex_);
    if (!credential || credential->empty()) {
        if (::unlink(file_.c_str()) != 0 && errno != ENOENT)
            KT_LOG(logger_, 3, kSource, "-[FileCredentialStore setCredential:]", "Can't remove credential file {}: {}",
                   file_.string(), std::strerror(errno));
        return;
    }
    if (hasControlCharacters(*credential)) {
        KT_LOG(logger_, 3, kSource, "-[FileCredentialStore setCredential:]",
               "Refusing a credential with control characters");
        return;
    }

    std::error_code ignored;
    if (file_.has_parent_path())
        std::filesystem::create_directories(file_.parent_path(), ignored);

    // mkstemp creates the file with mode 0600 in the same folder, so the rename is atomic.
    std::string temporary = file_.string() + ".XXXXXX";
    int fd = ::mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0) {
        KT_LOG(logger_, 3, kSource, "-[FileCredentialStore setCredential:]", "Can't create a file beside {}: {}",
               file_.string(), std::strerror(errno));
        return;
    }
    bool written = ::fchmod(fd, S_IRUSR | S_IWUSR) == 0 && writeAll(fd, *credential) && ::fsync(fd) == 0;
    int writeError = errno;
    written = (::close(fd) == 0) && written;
    if (!written || ::rename(temporary.c_str(), file_.c_str()) != 0) {
        if (written)
            writeError = errno;
        KT_LOG(logger_, 3, kSource, "-[FileCredentialStore setCredential:]", "Can't write credential file {}: {}",
               file_.string(), std::strerror(writeError));
        ::unlink(temporary.c_str());
    }
}

}  // namespace kt
