#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/GzipCodec.h"

#include <cmath>
#include <cstdint>

#include <zlib.h>

namespace kt {

namespace {

constexpr std::size_t kDeflateChunk = 16384;
constexpr int kGzipWindowBits = 31;        // 15-bit window, gzip header and trailer
constexpr int kAutoDetectWindowBits = 47;  // 15-bit window, gzip or zlib header
constexpr int kMemoryLevel = 8;

// The float is a fraction of zlib's 0-9 range; negative means "zlib's default".
int zlibLevel(float level) {
    if (level < 0) return Z_DEFAULT_COMPRESSION;
    const float scaled = level * 9.0f;
    // NaN and absurdly large fractions must not reach an undefined float-to-int conversion;
    // an out-of-range level makes the compressor refuse, as any level above 9 does.
    if (!(scaled < 100.0f)) return 100;
    return static_cast<int>(scaled);
}

}  // namespace

bool GzipCodec::isGzippedData(std::string_view data) {
    return data.size() >= 2 && static_cast<std::uint8_t>(data[0]) == 0x1F && static_cast<std::uint8_t>(data[1]) == 0x8B;
}

std::optional<std::string> GzipCodec::gzippedData(std::string_view data) {
    return gzippedDataWithCompressionLevel(data, -1.0f);
}

std::optional<std::string> GzipCodec::gzippedDataWithCompressionLevel(std::string_view data, float level) {
    if (data.empty() || isGzippedData(data)) return std::string(data);

    z_stream stream{};
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
    stream.avail_in = static_cast<uInt>(data.size());
    if (deflateInit2(&stream, zlibLevel(level), Z_DEFLATED, kGzipWindowBits, kMemoryLevel, Z_DEFAULT_STRATEGY) != Z_OK)
        return std::nullopt;

    std::string output(kDeflateChunk, '\0');
    // avail_out starts at 0, so the loop runs at least once; it ends when a call leaves
    // room in the buffer, which with Z_FINISH means the stream is complete.
    while (stream.avail_out == 0) {
        if (stream.total_out >= output.size()) output.resize(output.size() + kDeflateChunk);
        stream.next_out = reinterpret_cast<Bytef*>(output.data()) + stream.total_out;
        stream.avail_out = static_cast<uInt>(output.size() - stream.total_out);
        deflate(&stream, Z_FINISH);
    }
    deflateEnd(&stream);
    output.resize(stream.total_out);
    return output;
}

std::optional<std::string> GzipCodec::gunzippedData(std::string_view data) {
    if (data.empty() || !isGzippedData(data)) return std::string(data);

    const std::size_t halfLength = data.size() / 2;
    z_stream stream{};
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
    stream.avail_in = static_cast<uInt>(data.size());
    if (inflateInit2(&stream, kAutoDetectWindowBits) != Z_OK) return std::nullopt;

    std::string output;
    output.reserve(data.size() * 2);
    int status = Z_OK;
    while (status == Z_OK) {
        if (stream.total_out >= output.size()) output.resize(output.size() + halfLength);
        stream.next_out = reinterpret_cast<Bytef*>(output.data()) + stream.total_out;
        stream.avail_out = static_cast<uInt>(output.size() - stream.total_out);
        status = inflate(&stream, Z_SYNC_FLUSH);
    }
    // Only a complete stream is trimmed; a corrupt or truncated one is handed back at the
    // length the buffer had grown to.
    if (inflateEnd(&stream) == Z_OK && status == Z_STREAM_END) output.resize(stream.total_out);
    return output;
}

struct GzipWriter::Stream {
    z_stream z{};
    bool valid = false;
};

GzipWriter::GzipWriter() : stream_(std::make_unique<Stream>()) {
    stream_->valid = deflateInit2(&stream_->z, Z_DEFAULT_COMPRESSION, Z_DEFLATED, kGzipWindowBits, kMemoryLevel,
                                  Z_DEFAULT_STRATEGY) == Z_OK;
}

GzipWriter::~GzipWriter() {
    if (stream_->valid) deflateEnd(&stream_->z);
}

bool GzipWriter::isValid() const { return stream_->valid; }

void GzipWriter::deflateInto(int flush) {
    auto& z = stream_->z;
    do {
        if (output_.size() - z.total_out < kDeflateChunk / 4) output_.resize(output_.size() + kDeflateChunk);
        z.next_out = reinterpret_cast<Bytef*>(output_.data()) + z.total_out;
        z.avail_out = static_cast<uInt>(output_.size() - z.total_out);
        deflate(&z, flush);
    } while (z.avail_out == 0);
}

void GzipWriter::append(std::string_view piece) {
    if (!stream_->valid || piece.empty()) return;
    uncompressedSize_ += piece.size();
    auto& z = stream_->z;
    z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(piece.data()));
    z.avail_in = static_cast<uInt>(piece.size());
    while (z.avail_in > 0) deflateInto(Z_NO_FLUSH);
}

std::string GzipWriter::finish() {
    if (!stream_->valid) return {};
    auto& z = stream_->z;
    z.next_in = nullptr;
    z.avail_in = 0;
    // With no input left, Z_FINISH ends the stream once it leaves room in the buffer.
    deflateInto(Z_FINISH);
    output_.resize(z.total_out);
    deflateEnd(&z);
    stream_->valid = false;
    return std::move(output_);
}

}  // namespace kt
