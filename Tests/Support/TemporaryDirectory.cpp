#include "Support/TemporaryDirectory.h"

#include <cstdlib>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace kt::testing {

TemporaryDirectory::TemporaryDirectory(const std::string& prefix) {
    const std::string pattern = (std::filesystem::temp_directory_path() / (prefix + "-XXXXXX")).string();
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data()) == nullptr) throw std::runtime_error("mkdtemp failed for " + pattern);
    path_ = buffer.data();
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

}  // namespace kt::testing
