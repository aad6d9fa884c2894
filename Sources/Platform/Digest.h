#pragma once
// Content digests. The event store names each file after the SHA-1 of its bytes, so the
// textual form (lowercase hex, two characters per byte) is part of the on-disk format.

#include <cstddef>
#include <string>
#include <string_view>

namespace kt {

/// The SHA-1 digest of `size` bytes at `data` as 40 lowercase hexadecimal characters.
std::string sha1Hex(const void* data, std::size_t size);

inline std::string sha1Hex(std::string_view bytes) { return sha1Hex(bytes.data(), bytes.size()); }

}  // namespace kt
