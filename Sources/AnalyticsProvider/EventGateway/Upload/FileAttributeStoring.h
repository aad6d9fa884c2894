#pragma once
// Extended attributes of files, behind a role so that the event store can be run against
// a file system without user attributes (and tests can pretend to be one).

#include <filesystem>
#include <optional>
#include <string>

#include "KTAnalytics/Platform/AttributeValue.h"

namespace kt {

class FileAttributeStoring {
public:
    virtual ~FileAttributeStoring() = default;
    FileAttributeStoring() = default;
    FileAttributeStoring(const FileAttributeStoring&) = delete;
    FileAttributeStoring& operator=(const FileAttributeStoring&) = delete;

    /// The bytes of attribute `name` of `file`; nullopt with `error` set to the errno on
    /// failure (ENODATA when the file has no such attribute, ENOTSUP or EOPNOTSUPP when
    /// the file system keeps no user attributes).
    virtual std::optional<Bytes> attribute(const std::filesystem::path& file, const std::string& name,
                                           int& error) const = 0;
    /// 0 on success, otherwise the errno.
    virtual int setAttribute(const std::filesystem::path& file, const std::string& name, const Bytes& value) = 0;

    /// True for the errors that mean "this file system has no user attributes".
    static bool isUnsupported(int error);
};

/// Linux extended attributes of the entry itself (lgetxattr / lsetxattr): a count is
/// never written through a symbolic link onto a file elsewhere.
class ExtendedFileAttributes final : public FileAttributeStoring {
public:
    std::optional<Bytes> attribute(const std::filesystem::path& file, const std::string& name,
                                   int& error) const override;
    int setAttribute(const std::filesystem::path& file, const std::string& name, const Bytes& value) override;
};

}  // namespace kt
