#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/EventFolderAccessing.h"

#include <cerrno>
#include <cstring>
#include <memory>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kt {

namespace {

EventFolderEntryKind kindOf(const struct stat& info) {
    if (S_ISREG(info.st_mode)) return info.st_nlink == 1 ? EventFolderEntryKind::plainFile : EventFolderEntryKind::other;
    if (S_ISDIR(info.st_mode)) return EventFolderEntryKind::directory;
    return EventFolderEntryKind::other;
}

}  // namespace

std::vector<EventFolderEntry> PosixEventFolder::list(const std::filesystem::path& folder,
                                                     const std::string& suffix) const {
    std::vector<EventFolderEntry> entries;
    std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(folder.c_str()), ::closedir);
    if (!dir) return entries;
    const int fd = ::dirfd(dir.get());
    while (const dirent* entry = ::readdir(dir.get())) {
        const std::string_view name(entry->d_name);
        if (name.empty() || name.front() == '.' || !name.ends_with(suffix)) continue;
        struct stat info {};
        if (::fstatat(fd, entry->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0) continue;
        entries.push_back({std::string(name), kindOf(info)});
    }
    return entries;
}

EventFolderEntryKind PosixEventFolder::kind(const std::filesystem::path& path) const {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) return EventFolderEntryKind::missing;
    return kindOf(info);
}

std::optional<Bytes> PosixEventFolder::read(const std::filesystem::path& path, std::size_t maximumSize,
                                            std::string& error, EventFolderEntryKind* kind) const {
    EventFolderEntryKind found = EventFolderEntryKind::plainFile;
    const auto fail = [&](std::string reason) -> std::optional<Bytes> {
        if (kind) *kind = found;
        error = std::move(reason);
        return std::nullopt;
    };
    // O_NONBLOCK: a FIFO opens at once instead of waiting for a writer; O_NOCTTY: a
    // terminal put here never becomes ours.
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) {
        const int saved = errno;
        if (saved == ENOENT)
            found = EventFolderEntryKind::missing;
        else if (saved == ELOOP)
            found = EventFolderEntryKind::other;  // a symbolic link
        else if (kind)
            found = this->kind(path);  // refused (a socket, no permission): rare, so asked once more
        return fail(saved == ELOOP ? "a symbolic link" : std::strerror(saved));
    }
    struct stat info {};
    // Judged on the open file, so nothing can be swapped in between the look and the read.
    if (::fstat(fd, &info) != 0 || (found = kindOf(info)) != EventFolderEntryKind::plainFile ||
        static_cast<std::uintmax_t>(info.st_size) > maximumSize) {
        ::close(fd);
        return fail("not an event file of a plausible size");
    }
    Bytes bytes(static_cast<std::size_t>(info.st_size));
    std::size_t filled = 0;
    while (filled < bytes.size()) {
        const ssize_t n = ::read(fd, bytes.data() + filled, bytes.size() - filled);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            const int saved = errno;
            ::close(fd);
            return fail(std::strerror(saved));
        }
        if (n == 0) break;
        filled += static_cast<std::size_t>(n);
    }
    ::close(fd);
    bytes.resize(filled);
    if (kind) *kind = found;
    return bytes;
}

}  // namespace kt
