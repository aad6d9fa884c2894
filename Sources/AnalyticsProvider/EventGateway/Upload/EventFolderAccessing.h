#pragma once
// Listing and reading the event folder, behind a role: the store's cost is in how often it
// lists and reads, and tests count both through this seam.

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "KTAnalytics/Platform/AttributeValue.h"

namespace kt {

enum class EventFolderEntryKind {
    plainFile,  ///< a regular file with no other name
    directory,
    other,      ///< a link, a FIFO, a socket, a device, or a file with several names
    missing,
};

struct EventFolderEntry {
    std::string name;
    EventFolderEntryKind kind = EventFolderEntryKind::missing;
};

class EventFolderAccessing {
public:
    virtual ~EventFolderAccessing() = default;
    EventFolderAccessing() = default;
    EventFolderAccessing(const EventFolderAccessing&) = delete;
    EventFolderAccessing& operator=(const EventFolderAccessing&) = delete;

    /// The entries of `folder` whose names end with `suffix`, hidden ones left out, each
    /// with its kind as the entry itself is (links are not followed).
    virtual std::vector<EventFolderEntry> list(const std::filesystem::path& folder, const std::string& suffix) const = 0;
    /// The kind of the entry at `path` (links not followed).
    virtual EventFolderEntryKind kind(const std::filesystem::path& path) const = 0;
    /// The bytes of a plain file of at most `maximumSize` bytes, or nullopt with the reason.
    /// `kind`, when given, receives what the entry is, as found on the opened file (or
    /// `missing`): nothing is looked up twice, so nothing can be swapped in between.
    virtual std::optional<Bytes> read(const std::filesystem::path& path, std::size_t maximumSize, std::string& error,
                                      EventFolderEntryKind* kind = nullptr) const = 0;
};

/// The real folder, through POSIX calls. Never follows a link and never blocks on a FIFO:
/// a file is opened with O_NOFOLLOW | O_NONBLOCK and judged by fstat on the descriptor.
class PosixEventFolder final : public EventFolderAccessing {
public:
    std::vector<EventFolderEntry> list(const std::filesystem::path& folder, const std::string& suffix) const override;
    EventFolderEntryKind kind(const std::filesystem::path& path) const override;
    std::optional<Bytes> read(const std::filesystem::path& path, std::size_t maximumSize, std::string& error,
                              EventFolderEntryKind* kind = nullptr) const override;
};

}  // namespace kt
