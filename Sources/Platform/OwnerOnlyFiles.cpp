#include "KTAnalytics/Platform/OwnerOnlyFiles.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kt {

bool createOwnerOnlyDirectories(const std::filesystem::path& path, std::string* error) {
    std::filesystem::path partial;
    for (const auto& component : path) {
        partial /= component;
        if (::mkdir(partial.c_str(), 0700) != 0 && errno != EEXIST) {
            if (error) *error = partial.native() + ": " + std::strerror(errno);
            return false;
        }
    }
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        if (error) *error = path.native() + ": not a folder";
        return false;
    }
    if ((info.st_mode & 0777) != 0700 && info.st_uid == ::geteuid()) ::chmod(path.c_str(), 0700);
    return true;
}

bool ensureOwnerOnlyFile(const std::filesystem::path& path, std::string* error) {
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) {
        if (error) *error = path.native() + ": " + std::strerror(errno);
        return false;
    }
    const bool ok = ::fchmod(fd, 0600) == 0;
    const int saved = errno;
    ::close(fd);
    if (!ok && error) *error = path.native() + ": " + std::strerror(saved);
    return ok;
}

}  // namespace kt
