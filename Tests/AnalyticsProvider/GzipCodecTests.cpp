#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/GzipCodec.h"

#include <cmath>
#include <random>

#include <gtest/gtest.h>
#include <zlib.h>

namespace kt {
namespace {

std::string incompressible(std::size_t size) {
    std::mt19937 random(7);
    std::string bytes(size, '\0');
    for (auto& c : bytes) c = static_cast<char>(random());
    return bytes;
}

std::string text(std::size_t size) {
    std::string out;
    while (out.size() < size) out += "{\"event\":\"pageview\",\"payload\":{\"page_name\":\"stream:main\"}},";
    out.resize(size);
    return out;
}

// zlib run directly with the codec's parameters, as a reference; window bits 15 give a zlib wrapper.
std::string referenceGzip(const std::string& input, int level, int windowBits = 31) {
    z_stream stream{};
    EXPECT_EQ(deflateInit2(&stream, level, Z_DEFLATED, windowBits, 8, Z_DEFAULT_STRATEGY), Z_OK);
    std::string out(deflateBound(&stream, input.size()) + 64, '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(input.data()));
    stream.avail_in = static_cast<uInt>(input.size());
    stream.next_out = reinterpret_cast<Bytef*>(out.data());
    stream.avail_out = static_cast<uInt>(out.size());
    EXPECT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
    out.resize(stream.total_out);
    deflateEnd(&stream);
    return out;
}

// What plain zlib recovers from a damaged stream: the length the codec's buffer is grown from.
std::size_t recoverableLength(const std::string& compressed) {
    z_stream stream{};
    inflateInit2(&stream, 47);
    std::string out(1 << 20, '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(compressed.data()));
    stream.avail_in = static_cast<uInt>(compressed.size());
    stream.next_out = reinterpret_cast<Bytef*>(out.data());
    stream.avail_out = static_cast<uInt>(out.size());
    while (inflate(&stream, Z_SYNC_FLUSH) == Z_OK) {
    }
    const std::size_t length = stream.total_out;
    inflateEnd(&stream);
    return length;
}

TEST(GzipCodecTests, OnlyInputWithTheMagicIsDecodedAndEmptyOrGzipInputIsNotEncodedAgain) {
    for (const auto& [data, gzip] : std::vector<std::pair<std::string, bool>>{
             {"", false}, {"\x1f", false}, {std::string("\x8b\x1f", 2), false}, {std::string("\x1f\x8b", 2), true}})
        EXPECT_EQ(GzipCodec::isGzippedData(data), gzip) << data.size();
    const std::string alreadyGzipped("\x1f\x8bnot really a stream", 21);
    EXPECT_EQ(GzipCodec::gzippedData(alreadyGzipped), alreadyGzipped);
    EXPECT_EQ(GzipCodec::gzippedData(""), std::string());
    EXPECT_TRUE(GzipCodec::isGzippedData(*GzipCodec::gzippedData(std::string("\x1f", 1))));
    // A zlib-wrapped stream lacks the gzip magic and is not touched either.
    for (const std::string& plain : {std::string(), std::string("[1,2]"), referenceGzip(text(300), 6, 15)})
        EXPECT_EQ(GzipCodec::gunzippedData(plain), plain);
}

TEST(GzipCodecTests, LevelIsAFractionOfZlibsRangeTruncated) {
    const std::string input = text(20000);
    for (const auto& [level, zlibLevel] : std::vector<std::pair<float, int>>{
             {0.0f, 0}, {0.5f, 4}, {0.99f, 8}, {1.0f, 9}, {-0.25f, Z_DEFAULT_COMPRESSION}})
        EXPECT_EQ(GzipCodec::gzippedDataWithCompressionLevel(input, level), referenceGzip(input, zlibLevel)) << level;
    EXPECT_EQ(GzipCodec::gzippedData(input), referenceGzip(input, Z_DEFAULT_COMPRESSION));
    EXPECT_EQ(GzipCodec::gzippedDataWithCompressionLevel("abc", 2.0f), std::nullopt);
    EXPECT_EQ(GzipCodec::gzippedDataWithCompressionLevel("abc", std::nanf("")), std::nullopt);
}

TEST(GzipCodecTests, DamagedStreamsGiveTheUntrimmedBuffer) {
    const std::string input = incompressible(4000);
    const std::string compressed = *GzipCodec::gzippedData(input);
    std::string corrupt = *GzipCodec::gzippedData(text(3000));
    corrupt[corrupt.size() - 5] ^= 0x55;  // the trailer's checksum: everything else decodes
    for (const auto& [damaged, original] : std::vector<std::pair<std::string, std::string>>{
             {compressed.substr(0, compressed.size() / 2), input}, {corrupt, text(3000)}}) {
        const auto result = GzipCodec::gunzippedData(damaged);
        ASSERT_TRUE(result);
        const std::size_t recovered = recoverableLength(damaged);
        // The buffer grows in steps of half the input's length, one step past what decodes,
        // and is not cut back.
        const std::size_t step = damaged.size() / 2;
        EXPECT_EQ(result->size(), (recovered / step + 1) * step);
        EXPECT_EQ(result->substr(0, recovered), original.substr(0, recovered));
    }
}

}  // namespace
}  // namespace kt
