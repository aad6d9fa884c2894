#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/FileAttributeStoring.h"

#include <cerrno>

#include <sys/xattr.h>

namespace kt {

bool FileAttributeStoring::isUnsupported(int error) { return error == ENOTSUP || error == EOPNOTSUPP; }

std::optional<Bytes> ExtendedFileAttributes::attribute(const std::filesystem::path& file, const std::string& name,
                                                       int& error) const {
    // Most attributes read here are 8 bytes: try that first and ask for the size only when
    // the value is larger.
    Bytes value(8);
    for (int attempt = 0; attempt < 4; ++attempt) {
        const ssize_t size = ::lgetxattr(file.c_str(), name.c_str(), value.data(), value.size());
        if (size >= 0) {
            value.resize(static_cast<std::size_t>(size));
            return value;
        }
        if (errno != ERANGE) break;
        const ssize_t needed = ::lgetxattr(file.c_str(), name.c_str(), nullptr, 0);
        if (needed < 0) break;
        value.resize(static_cast<std::size_t>(needed));
    }
    error = errno;
    return std::nullopt;
}

int ExtendedFileAttributes::setAttribute(const std::filesystem::path& file, const std::string& name,
                                         const Bytes& value) {
    return ::lsetxattr(file.c_str(), name.c_str(), value.data(), value.size(), 0) == 0 ? 0 : errno;
}

}  // namespace kt
