#include "KTAnalytics/Platform/Digest.h"

#include <openssl/evp.h>

#include "KTAnalytics/Platform/Fatal.h"

namespace kt {

namespace {

// Fetching the algorithm once avoids OpenSSL's implicit fetch (a locked lookup) on every
// digest; the event store hashes every event it writes.
const EVP_MD* sha1Algorithm() {
    static const EVP_MD* const md = [] {
        const EVP_MD* fetched = EVP_MD_fetch(nullptr, "SHA1", nullptr);
        return fetched != nullptr ? fetched : EVP_sha1();
    }();
    return md;
}

}  // namespace

std::string sha1Hex(const void* data, std::size_t size) {
    static constexpr char kHex[] = "0123456789abcdef";
    static const unsigned char kEmpty = 0;
    KT_PARAMETER_ASSERT(data != nullptr || size == 0);
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(data != nullptr ? data : &kEmpty, size, digest, &length, sha1Algorithm(), nullptr) != 1 ||
        length != 20) {
        // Only a broken crypto library gets here; a wrong name would corrupt the store.
        fatalError("SHA-1 digest failed");
    }
    std::string hex(2 * length, '0');
    for (unsigned int i = 0; i < length; ++i) {
        hex[2 * i] = kHex[digest[i] >> 4];
        hex[2 * i + 1] = kHex[digest[i] & 0x0f];
    }
    return hex;
}

}  // namespace kt
