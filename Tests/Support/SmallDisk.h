#pragma once
// A small tmpfs for tests of a full disk. Mounting needs root: a test checks `mounted` and
// skips without it.

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "Support/TemporaryDirectory.h"

namespace kt::testing {

struct SmallDisk {
    explicit SmallDisk(const std::string& size)
        : mounted(::geteuid() == 0 && std::system(("mount -t tmpfs -o size=" + size + " tmpfs " +
                                                   directory.path().native() + " 2>/dev/null").c_str()) == 0) {}
    ~SmallDisk() {
        if (mounted) std::system(("umount " + directory.path().native()).c_str());
    }
    std::filesystem::path operator/(const std::filesystem::path& child) const { return directory / child; }
    /// Writes a filler file until the disk is full; `free` gives the space back.
    void fill() const {
        const std::string block(4096, 'x');
        for (std::ofstream filler(directory / "filler", std::ios::binary | std::ios::app); filler.write(block.data(), block.size());) {
        }
    }
    void free() const { std::filesystem::remove(directory / "filler"); }

    TemporaryDirectory directory{"kt-small-disk"};  // before `mounted`, which mounts it
    const bool mounted;
};

}  // namespace kt::testing
