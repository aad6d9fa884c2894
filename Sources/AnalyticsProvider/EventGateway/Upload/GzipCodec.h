#pragma once
// Gzip compression of the gateway request body, the matching decompression and the magic
// test. Buffers are byte strings; no operation changes its input.

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace kt {

class GzipCodec {
public:
    GzipCodec() = delete;

    /// Gzip bytes of `data`. `level` is a fraction of zlib's range: a negative value means
    /// zlib's default, otherwise the level is `level * 9` truncated (0.5 gives 4, 1.0 gives
    /// 9). Empty input and input that is already gzip are returned unchanged. Nullopt when
    /// the compressor refuses the parameters (a level above 1.0, for example).
    static std::optional<std::string> gzippedDataWithCompressionLevel(std::string_view data, float level);
    /// The same at zlib's default level.
    static std::optional<std::string> gzippedData(std::string_view data);

    /// Decompressed bytes of a gzip (or zlib) stream. Input that is empty or does not start
    /// with the gzip magic is returned unchanged. A corrupt or truncated stream gives the
    /// output buffer as it stood when inflating stopped, untrimmed, rather than an error.
    /// Nullopt only when the decompressor cannot be initialised.
    static std::optional<std::string> gunzippedData(std::string_view data);

    /// At least two bytes, starting with 0x1F 0x8B.
    static bool isGzippedData(std::string_view data);
};

/// Compresses a body written in pieces, so that a large one never exists whole: the same
/// gzip stream, at zlib's default level, as `gzippedData` makes of the pieces joined.
class GzipWriter {
public:
    GzipWriter();
    ~GzipWriter();
    GzipWriter(const GzipWriter&) = delete;
    GzipWriter& operator=(const GzipWriter&) = delete;

    /// False when the compressor could not be set up; nothing can be written then.
    bool isValid() const;
    void append(std::string_view piece);
    /// Ends the stream and hands over the compressed bytes; the writer is spent.
    std::string finish();
    /// Bytes appended so far, before compression.
    std::size_t uncompressedSize() const { return uncompressedSize_; }

private:
    void deflateInto(int flush);
    struct Stream;
    std::unique_ptr<Stream> stream_;
    std::string output_;
    std::size_t uncompressedSize_ = 0;
};

}  // namespace kt
