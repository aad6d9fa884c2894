#pragma once
// A fresh directory under the system's temporary folder, removed with everything in it
// when the object goes away. Each test makes its own, so tests never share state.

#include <filesystem>
#include <string>

namespace kt::testing {

class TemporaryDirectory {
public:
    explicit TemporaryDirectory(const std::string& prefix = "kt-test");
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::filesystem::path& child) const { return path_ / child; }

private:
    std::filesystem::path path_;
};

}  // namespace kt::testing
