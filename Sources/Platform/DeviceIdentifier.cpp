#include "KTAnalytics/Platform/DeviceIdentifier.h"

#include <array>
#include <fstream>

#include <openssl/evp.h>
#include <openssl/hmac.h>

namespace kt {

namespace {

std::optional<std::string> readMachineId(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file)
        return std::nullopt;
    // The file holds 32 hex digits and a line feed; read a little more to be safe, no more.
    std::string contents(128, '\0');
    file.read(contents.data(), static_cast<std::streamsize>(contents.size()));
    contents.resize(static_cast<std::size_t>(file.gcount()));

    auto isBlank = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; };
    std::size_t begin = 0, end = contents.size();
    while (begin < end && isBlank(contents[begin]))
        ++begin;
    while (end > begin && isBlank(contents[end - 1]))
        --end;
    contents = contents.substr(begin, end - begin);
    // During the first boot the file may say "uninitialized": that is no identity yet.
    if (contents.empty() || contents == "uninitialized")
        return std::nullopt;
    return contents;
}

}  // namespace

std::optional<std::string> identifierForVendor(const std::string& applicationId,
                                               const std::filesystem::path& machineIdPath) {
    auto machineId = readMachineId(machineIdPath);
    if (!machineId)
        return std::nullopt;

    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int length = 0;
    if (!HMAC(EVP_sha256(), applicationId.data(), static_cast<int>(applicationId.size()),
              reinterpret_cast<const unsigned char*>(machineId->data()), machineId->size(), digest.data(), &length) ||
        length < 16)
        return std::nullopt;

    // Version 4, variant 1: the result reads as an ordinary random UUID.
    digest[6] = static_cast<unsigned char>((digest[6] & 0x0F) | 0x40);
    digest[8] = static_cast<unsigned char>((digest[8] & 0x3F) | 0x80);

    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(36);
    for (int i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10)
            text.push_back('-');
        text.push_back(kHex[digest[i] >> 4]);
        text.push_back(kHex[digest[i] & 0x0F]);
    }
    return text;
}

}  // namespace kt
