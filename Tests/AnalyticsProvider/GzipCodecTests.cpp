#include "AnalyticsProvider/EventGateway/Upload/GzipCodec.h"

#include <random>
#include <string>

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

// zlib run directly with the codec's parameters, as a reference.
std::string referenceGzip(const std::string& input, int level) {
    z_stream stream{};
    EXPECT_EQ(deflateInit2(&stream, level, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY), Z_OK);
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

TEST(GzipCodecTests, MagicNeedsTwoBytes) {
    EXPECT_FALSE(GzipCodec::isGzippedData(""));
    EXPECT_FALSE(GzipCodec::isGzippedData("\x1f"));
    EXPECT_FALSE(GzipCodec::isGzippedData(std::string("\x8b\x1f", 2)));
    EXPECT_TRUE(GzipCodec::isGzippedData(std::string("\x1f\x8b", 2)));
}

TEST(GzipCodecTests, EmptyAndAlreadyGzippedInputIsReturnedUnchanged) {
    EXPECT_EQ(GzipCodec::gzippedData(""), std::string());
    const std::string alreadyGzipped("\x1f\x8bnot really a stream", 21);
    EXPECT_EQ(GzipCodec::gzippedData(alreadyGzipped), alreadyGzipped);
    const std::string oneByte("\x1f", 1);
    auto compressed = GzipCodec::gzippedData(oneByte);
    ASSERT_TRUE(compressed);
    EXPECT_TRUE(GzipCodec::isGzippedData(*compressed));
}

TEST(GzipCodecTests, RoundTripsSmallAndLargeBuffers) {
    // The large incompressible buffer needs several 16384-byte growth steps.
    for (const std::string& input : {std::string("a"), text(5000), incompressible(100000)}) {
        auto compressed = GzipCodec::gzippedData(input);
        ASSERT_TRUE(compressed);
        EXPECT_TRUE(GzipCodec::isGzippedData(*compressed));
        EXPECT_EQ(GzipCodec::gunzippedData(*compressed), input);
    }
}

TEST(GzipCodecTests, LevelIsAFractionOfZlibsRangeTruncated) {
    const std::string input = text(20000);
    EXPECT_EQ(GzipCodec::gzippedDataWithCompressionLevel(input, 0.0f), referenceGzip(input, 0));
    EXPECT_EQ(GzipCodec::gzippedDataWithCompressionLevel(input, 0.5f), referenceGzip(input, 4));
    EXPECT_EQ(GzipCodec::gzippedDataWithCompressionLevel(input, 0.99f), referenceGzip(input, 8));
    EXPECT_EQ(GzipCodec::gzippedDataWithCompressionLevel(input, 1.0f), referenceGzip(input, 9));
    EXPECT_EQ(GzipCodec::gzippedDataWithCompressionLevel(input, -0.25f), referenceGzip(input, Z_DEFAULT_COMPRESSION));
    EXPECT_EQ(GzipCodec::gzippedData(input), referenceGzip(input, Z_DEFAULT_COMPRESSION));
    // Stored blocks (level 0) are larger than the text itself.
    EXPECT_GT(GzipCodec::gzippedDataWithCompressionLevel(input, 0.0f)->size(), input.size());
}

TEST(GzipCodecTests, ALevelOutsideZlibsRangeGivesNothing) {
    EXPECT_EQ(GzipCodec::gzippedDataWithCompressionLevel("abc", 2.0f), std::nullopt);
    EXPECT_EQ(GzipCodec::gzippedDataWithCompressionLevel("abc", std::nanf("")), std::nullopt);
}

TEST(GzipCodecTests, GunzipLeavesNonGzipInputAlone) {
    EXPECT_EQ(GzipCodec::gunzippedData(""), std::string());
    EXPECT_EQ(GzipCodec::gunzippedData("[1,2]"), "[1,2]");
    // A zlib-wrapped stream lacks the gzip magic and is not touched either.
    const std::string input = text(300);
    std::string zlibStream(compressBound(input.size()), '\0');
    uLongf size = zlibStream.size();
    ASSERT_EQ(compress2(reinterpret_cast<Bytef*>(zlibStream.data()), &size,
                        reinterpret_cast<const Bytef*>(input.data()), input.size(), 6),
              Z_OK);
    zlibStream.resize(size);
    EXPECT_EQ(GzipCodec::gunzippedData(zlibStream), zlibStream);
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

// The buffer grows in steps of half the input's length, one step past what decodes, and is
// not cut back.
std::size_t untrimmedLength(const std::string& damaged) {
    const std::size_t step = damaged.size() / 2;
    return (recoverableLength(damaged) / step + 1) * step;
}

TEST(GzipCodecTests, TruncatedStreamGivesTheUntrimmedBuffer) {
    const std::string input = incompressible(4000);
    const std::string compressed = *GzipCodec::gzippedData(input);
    const std::string truncated = compressed.substr(0, compressed.size() / 2);

    auto result = GzipCodec::gunzippedData(truncated);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->size(), untrimmedLength(truncated));
    EXPECT_NE(*result, input);
    EXPECT_EQ(result->substr(0, 100), input.substr(0, 100));
}

TEST(GzipCodecTests, CorruptStreamIsNotTrimmed) {
    std::string compressed = *GzipCodec::gzippedData(text(3000));
    compressed[compressed.size() - 5] ^= 0x55;  // damage the trailer's checksum
    auto result = GzipCodec::gunzippedData(compressed);
    ASSERT_TRUE(result);
    // Everything decodes except the checksum; the buffer still keeps its grown length.
    EXPECT_EQ(result->size(), untrimmedLength(compressed));
    ASSERT_GE(result->size(), 3000u);
    EXPECT_EQ(result->substr(0, 3000), text(3000));
}

}  // namespace
}  // namespace kt
