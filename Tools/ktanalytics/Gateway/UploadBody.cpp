#include "Gateway/UploadBody.h"

#include <algorithm>
#include <limits>

#include <zlib.h>

namespace kt::gateway {

Inflated gunzip(const std::string& body, std::size_t maximum, std::string& out) {
    if (body.size() < 18 || static_cast<unsigned char>(body[0]) != 0x1f || static_cast<unsigned char>(body[1]) != 0x8b)
        return Inflated::notGzip;
    z_stream stream{};
    if (inflateInit2(&stream, 47) != Z_OK) return Inflated::notGzip;
    std::size_t fed = 0;
    char chunk[16384];
    int status = Z_OK;
    while (status == Z_OK) {
        if (stream.avail_in == 0 && fed < body.size()) {
            // avail_in is 32 bits wide.
            const std::size_t piece = std::min<std::size_t>(body.size() - fed, std::numeric_limits<uInt>::max());
            stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(body.data() + fed));
            stream.avail_in = static_cast<uInt>(piece);
            fed += piece;
        }
        stream.next_out = reinterpret_cast<Bytef*>(chunk);
        stream.avail_out = sizeof chunk;
        status = inflate(&stream, Z_NO_FLUSH);
        if (status != Z_OK && status != Z_STREAM_END) break;
        out.append(chunk, sizeof chunk - stream.avail_out);
        if (out.size() > maximum) {
            inflateEnd(&stream);
            return Inflated::tooLarge;
        }
        // No progress and no end: the stream is truncated.
        if (status == Z_OK && stream.avail_in == 0 && fed == body.size() && stream.avail_out != 0) {
            status = Z_DATA_ERROR;
            break;
        }
    }
    const bool complete = status == Z_STREAM_END && stream.avail_in == 0 && fed == body.size();
    inflateEnd(&stream);
    return complete ? Inflated::complete : Inflated::notGzip;
}

bool startsLikeGzip(const std::string& body) {
    return body.size() >= 2 && static_cast<unsigned char>(body[0]) == 0x1f &&
           static_cast<unsigned char>(body[1]) == 0x8b;
}

}  // namespace kt::gateway
