#pragma once
// Reads the gateway's uploads as a stream of JSON tokens rather than as a parsed tree: a tree
// of tiny values takes some 30 times the text's size, the texts kept here about once. What is
// kept is what the gateway stores, written as nlohmann's dump() writes a parsed value
// (compact, object members sorted by name, a repeated name keeping its last value), and the
// refusals say what the checks of a parsed tree said, in the same order.

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace kt::gateway {

/// The items of an upload (events or batch messages), each a fixed number of texts laid end
/// to end in `texts`. `notJSON` is set when the body does not parse, whatever else is wrong
/// with it; otherwise a non-empty `why` says what is wrong with its shape.
struct UploadItems {
    bool notJSON = false;
    std::string why;
    std::string texts;
    std::size_t fieldsPerItem = 0;
    std::vector<std::size_t> ends;  // where each field of each item ends in `texts`

    bool taken() const { return !notJSON && why.empty(); }
    std::size_t size() const { return fieldsPerItem == 0 ? 0 : ends.size() / fieldsPerItem; }
    std::string_view field(std::size_t item, std::size_t index) const {
        const std::size_t at = item * fieldsPerItem + index;
        const std::size_t begin = at == 0 ? 0 : ends[at - 1];
        return std::string_view(texts).substr(begin, ends[at] - begin);
    }
};

/// Fields of an events item: the payload's JSON text, then the event and version strings.
enum EventField : std::size_t { eventPayload, eventName, eventVersion, eventFieldCount };
/// Fields of a batch item: the whole message's JSON text, the JSON texts of its `context.kt`
/// and `integrations` ("null" when absent), then its messageId, type and name strings (the
/// `event` of a track, the `userId` of an identify, else empty).
enum MessageField : std::size_t {
    messageWhole, messageKt, messageIntegrations, messageId, messageType, messageName, messageFieldCount
};

/// A bare array of {"event", "version", "payload"} elements, or {"events": [...], "sent_at"}.
UploadItems readEventsUpload(std::string_view text);
/// {"batch": [messages], "sentAt", "writeKey"}, each message of the batch API's shape.
UploadItems readBatchUpload(std::string_view text);

}  // namespace kt::gateway
