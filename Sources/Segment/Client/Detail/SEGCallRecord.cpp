#include "KTAnalytics/Segment/Client/Detail/SEGCallRecord.h"

#include <cstring>

#include "KTAnalytics/Platform/CBORWriting.h"

namespace kt::segment {

namespace {

bool append(std::vector<std::uint8_t>& out, const std::optional<AttributeValue>& value, std::size_t maximumNesting) {
    out.push_back(value ? 1 : 0);
    return !value || cbor::appendValue(out, *value, maximumNesting);
}

}  // namespace

bool CallRecord::encode(std::vector<std::uint8_t>& out, bool identify, const std::string& name,
                        const std::optional<AttributeValue>& values, const std::optional<AttributeValue>& options,
                        std::size_t maximumNesting) {
    using std::chrono::nanoseconds;
    Header header{identify, std::chrono::duration_cast<nanoseconds>(Clock::now().time_since_epoch()).count(), 0, 0};
    out.assign(sizeof header, 0);
    out.insert(out.end(), name.begin(), name.end());
    header.valuesAt = static_cast<std::uint32_t>(out.size());
    if (!append(out, values, maximumNesting)) return false;
    header.optionsAt = static_cast<std::uint32_t>(out.size());
    if (!append(out, options, maximumNesting)) return false;
    std::memcpy(out.data(), &header, sizeof header);
    return true;
}

CallRecord::CallRecord(const std::vector<std::uint8_t>& bytes) : bytes_(bytes) {
    std::memcpy(&header_, bytes.data(), sizeof header_);
}

CallRecord::Clock::time_point CallRecord::at() const {
    return Clock::time_point(std::chrono::duration_cast<Clock::duration>(std::chrono::nanoseconds(header_.at)));
}

std::string CallRecord::name() const {
    return std::string(bytes_.begin() + sizeof(Header), bytes_.begin() + header_.valuesAt);
}

std::optional<AttributeValue> CallRecord::decode(std::size_t from, std::size_t to) const {
    if (bytes_[from] == 0) return std::nullopt;
    // Dates and data travel as tagged byte strings and come back as what they were.
    return AttributeValue::from_cbor(bytes_.begin() + static_cast<std::ptrdiff_t>(from) + 1,
                                     bytes_.begin() + static_cast<std::ptrdiff_t>(to), true, true,
                                     AttributeValue::cbor_tag_handler_t::store);
}

}  // namespace kt::segment
