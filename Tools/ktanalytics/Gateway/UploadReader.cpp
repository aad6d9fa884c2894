#include "Gateway/UploadReader.h"

#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <numeric>
#include <optional>

#include <nlohmann/json.hpp>

namespace kt::gateway {

namespace {

using nlohmann::json;

// Writes one JSON value, fed token by token, at the end of `out` as dump() would write it
// once parsed. Members are written as they come; only an object whose names do not come in
// strictly rising order is rewritten when it closes (sorted, the last of a repeated name kept).
class CanonicalWriter {
public:
    explicit CanonicalWriter(std::string& out)
        : out_(out),
          serializer_(std::make_shared<nlohmann::detail::output_string_adapter<char>>(piece_), ' ',
                      json::error_handler_t::replace) {}

    void begin() {
        active_ = true;
        frames_.clear();
        members_.clear();
    }
    bool active() const { return active_; }

    void scalar(const json& value) {
        beforeValue();
        out_ += written(value);
        if (frames_.empty()) active_ = false;
    }

    void open(bool object) {
        beforeValue();
        out_ += object ? '{' : '[';
        frames_.push_back(Frame{.object = object, .start = out_.size() - 1, .firstMember = members_.size()});
    }

    void key(const std::string& name) {
        Frame& frame = frames_.back();
        if (members_.size() > frame.firstMember) out_ += ',';
        const Member member{out_.size(), 0};
        out_ += written(json(name));
        out_ += ':';
        members_.push_back(Member{member.keyStart, out_.size()});
        const std::size_t count = members_.size() - frame.firstMember;
        if (frame.ordered && count > 1 && !keyLess(members_[members_.size() - 2], members_.back()))
            frame.ordered = false;
    }

    void close() {
        const Frame frame = frames_.back();
        frames_.pop_back();
        if (frame.object && !frame.ordered) reorder(frame);
        members_.resize(frame.firstMember);
        out_ += frame.object ? '}' : ']';
        if (frames_.empty()) active_ = false;
    }

private:
    struct Frame {
        bool object = false;
        bool ordered = true;  // names so far strictly rising
        std::size_t start = 0;
        std::size_t firstMember = 0;
        std::size_t elements = 0;
    };
    struct Member {
        std::size_t keyStart;    // at the name's opening quote
        std::size_t valueStart;  // after the colon
    };

    const std::string& written(const json& value) {
        piece_.clear();
        serializer_.dump(value, false, false, 0);
        return piece_;
    }

    void beforeValue() {
        if (!frames_.empty() && !frames_.back().object && frames_.back().elements++ > 0) out_ += ',';
    }

    // The name as written, without its quotes.
    std::string_view quotedName(const Member& m) const {
        return std::string_view(out_).substr(m.keyStart + 1, m.valueStart - m.keyStart - 3);
    }

    // Names compare as std::map compares them, unescaped; they are unescaped only when one
    // of them was escaped.
    bool keyLess(const Member& a, const Member& b) const {
        const std::string_view x = quotedName(a), y = quotedName(b);
        if (x.find('\\') == std::string_view::npos && y.find('\\') == std::string_view::npos) return x < y;
        auto unescaped = [](std::string_view name) {
            return json::parse("\"" + std::string(name) + "\"").get<std::string>();
        };
        return unescaped(x) < unescaped(y);
    }

    void reorder(const Frame& frame) {
        const auto first = members_.begin() + static_cast<std::ptrdiff_t>(frame.firstMember);
        const std::size_t count = static_cast<std::size_t>(members_.end() - first);
        std::vector<std::size_t> ends(count);
        for (std::size_t i = 0; i < count; ++i) ends[i] = i + 1 < count ? first[i + 1].keyStart - 1 : out_.size();
        std::vector<std::size_t> order(count);
        std::iota(order.begin(), order.end(), std::size_t{0});
        std::stable_sort(order.begin(), order.end(),
                         [&](std::size_t a, std::size_t b) { return keyLess(first[a], first[b]); });
        std::string rewritten;
        for (std::size_t i = 0; i < count; ++i) {
            const std::size_t m = order[i];
            // Of equal names, sorted stably, the last one wins, as a parser's repeated assignment does.
            if (i + 1 < count && !keyLess(first[m], first[order[i + 1]])) continue;
            if (!rewritten.empty()) rewritten += ',';
            rewritten.append(out_, first[m].keyStart, ends[m] - first[m].keyStart);
        }
        out_.resize(frame.start + 1);
        out_ += rewritten;
    }

    std::string& out_;
    std::string piece_;
    nlohmann::detail::serializer<json> serializer_;
    bool active_ = false;
    std::vector<Frame> frames_;
    std::vector<Member> members_;
};

// Feeds nlohmann's token parser into a reader's scalar/open/key/close.
template <class Reader>
struct Tokens {
    Reader& reader;
    bool null() { return reader.scalar(json(nullptr)); }
    bool boolean(bool value) { return reader.scalar(json(value)); }
    bool number_integer(json::number_integer_t value) { return reader.scalar(json(value)); }
    bool number_unsigned(json::number_unsigned_t value) { return reader.scalar(json(value)); }
    bool number_float(json::number_float_t value, const std::string&) { return reader.scalar(json(value)); }
    bool string(std::string& value) { return reader.scalar(json(std::move(value))); }
    bool binary(json::binary_t&) { return false; }  // JSON text has none
    bool start_object(std::size_t) { return reader.open(true); }
    bool key(std::string& name) { return reader.key(name); }
    bool end_object() { return reader.close(); }
    bool start_array(std::size_t) { return reader.open(false); }
    bool end_array() { return reader.close(); }
    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) { return false; }
};

template <class Reader>
UploadItems readWith(std::string_view text, std::size_t fieldsPerItem) {
    UploadItems items;
    items.fieldsPerItem = fieldsPerItem;
    Reader reader(items);
    Tokens<Reader> tokens{reader};
    items.notJSON = !json::sax_parse(text, &tokens);
    if (!items.notJSON) items.why = reader.verdict();
    if (!items.taken()) {
        std::string().swap(items.texts);
        std::vector<std::size_t>().swap(items.ends);
    }
    return items;
}

std::optional<std::string> stringOf(const json* value) {
    return value != nullptr && value->is_string() ? std::optional(value->get<std::string>()) : std::nullopt;
}

// What a reader makes of an open container: one it looks into, or one it passes over (whose
// tokens may still go to a writer).
enum class Level { root, items, item, context, other };

class EventsReader {
public:
    explicit EventsReader(UploadItems& items) : items_(items), payload_(items.texts) {}

    bool scalar(const json& value) {
        valueStarts(&value, false);
        if (payload_.active()) payload_.scalar(value);
        return true;
    }
    bool open(bool object) {
        levels_.push_back(valueStarts(nullptr, object));
        if (payload_.active()) payload_.open(object);
        return true;
    }
    bool key(const std::string& name) {
        if (payload_.active()) {
            payload_.key(name);
        } else if (!levels_.empty() && levels_.back() == Level::root) {
            key_ = name;
            (name == "events" ? sawEvents_ : name == "sent_at" ? sawSentAt_ : sawOther_) = true;
        } else if (!levels_.empty() && levels_.back() == Level::item) {
            key_ = name;
            (name == "event" ? element_.sawEvent : name == "version" ? element_.sawVersion
             : name == "payload"                     ? element_.sawPayload
                                                     : element_.sawOther) = true;
        }
        return true;
    }
    bool close() {
        if (payload_.active()) payload_.close();
        const Level level = levels_.back();
        levels_.pop_back();
        if (level == Level::item) elementEnds();
        return true;
    }

    std::string verdict() const {
        if (rootObject_) {
            if (!sawEvents_ || !sawSentAt_ || sawOther_) return "an object body must have exactly \"events\" and \"sent_at\"";
            if (!sentAtIsString_) return "\"sent_at\" must be a string";
        }
        if (!eventsIsArray_) return "the body must be an array of events or an object with \"events\"";
        return elementsWhy_;
    }

private:
    struct Element {
        bool sawEvent = false, sawVersion = false, sawPayload = false, sawOther = false;
        std::optional<std::string> event, version;
        bool payloadIsObject = false;
        std::size_t start = 0;
    };

    // Classifies a value about to start (`scalar` null for a container) and, for a container,
    // says what it is to the reader.
    Level valueStarts(const json* scalar, bool object) {
        const bool container = scalar == nullptr;
        if (levels_.empty()) {
            rootObject_ = container && object;
            if (container && !object) eventsStart(true);
            return rootObject_ ? Level::root : container && !object ? Level::items : Level::other;
        }
        switch (levels_.back()) {
        case Level::root:
            if (key_ == "events") {
                eventsStart(container && !object);
                return container && !object ? Level::items : Level::other;
            }
            if (key_ == "sent_at") sentAtIsString_ = scalar != nullptr && scalar->is_string();
            return Level::other;
        case Level::items: {
            const std::size_t index = elementCount_++;
            if (container && object) {
                element_ = Element();
                element_.start = items_.texts.size();
                return Level::item;
            }
            elementRefused(index, false);
            return Level::other;
        }
        case Level::item:
            if (key_ == "event") element_.event = stringOf(scalar);
            if (key_ == "version") element_.version = stringOf(scalar);
            if (key_ == "payload") {
                element_.payloadIsObject = container && object;
                // A repeated payload replaces the one before it.
                items_.texts.resize(element_.start);
                if (element_.payloadIsObject && elementsWhy_.empty()) payload_.begin();
            }
            return Level::other;
        default:
            return Level::other;
        }
    }

    // The "events" member, or the bare array, starts: a repeated member replaces the one before.
    void eventsStart(bool isArray) {
        eventsIsArray_ = isArray;
        elementCount_ = 0;
        elementsWhy_.clear();
        items_.texts.clear();
        items_.ends.clear();
    }

    void elementRefused(std::size_t index, bool shapeIsRight) {
        if (elementsWhy_.empty())
            elementsWhy_ = shapeIsRight ? "element " + std::to_string(index) +
                                              ": \"event\" and \"version\" must be strings, \"payload\" an object"
                                        : "element " + std::to_string(index) +
                                              " must have exactly \"event\", \"version\" and \"payload\"";
        items_.texts.clear();
        items_.ends.clear();
    }

    void elementEnds() {
        const std::size_t index = elementCount_ - 1;
        const Element& e = element_;
        if (!e.sawEvent || !e.sawVersion || !e.sawPayload || e.sawOther) return elementRefused(index, false);
        if (!e.event || !e.version || !e.payloadIsObject) return elementRefused(index, true);
        if (!elementsWhy_.empty()) return;
        items_.ends.push_back(items_.texts.size());
        items_.texts += *e.event;
        items_.ends.push_back(items_.texts.size());
        items_.texts += *e.version;
        items_.ends.push_back(items_.texts.size());
    }

    UploadItems& items_;
    CanonicalWriter payload_;
    std::vector<Level> levels_;
    std::string key_;
    bool rootObject_ = false, sawEvents_ = false, sawSentAt_ = false, sawOther_ = false;
    bool sentAtIsString_ = false, eventsIsArray_ = false;
    std::size_t elementCount_ = 0;
    std::string elementsWhy_;
    Element element_;
};

// The message types of the batch tracking API; each is stored under its own type.
constexpr const char* kMessageTypes[] = {"track", "identify", "screen", "page", "group", "alias"};

class BatchReader {
public:
    explicit BatchReader(UploadItems& items)
        : items_(items), whole_(items.texts), kt_(ktText_), integrations_(integrationsText_) {}

    bool scalar(const json& value) {
        valueStarts(&value, false);
        for (CanonicalWriter* w : writers())
            if (w->active()) w->scalar(value);
        return true;
    }
    bool open(bool object) {
        levels_.push_back(valueStarts(nullptr, object));
        for (CanonicalWriter* w : writers())
            if (w->active()) w->open(object);
        return true;
    }
    bool key(const std::string& name) {
        for (CanonicalWriter* w : writers())
            if (w->active()) w->key(name);
        const Level level = levels_.back();
        if (level == Level::root || level == Level::item || level == Level::context) key_ = name;
        return true;
    }
    bool close() {
        for (CanonicalWriter* w : writers())
            if (w->active()) w->close();
        const Level level = levels_.back();
        levels_.pop_back();
        if (level == Level::item) messageEnds();
        return true;
    }

    std::string verdict() const {
        if (!rootObject_) return "the body must be an object with \"batch\"";
        if (!batchIsArray_) return "\"batch\" must be an array";
        if (sentAt_ != Kind::absent && sentAt_ != Kind::string) return "\"sentAt\" must be a string";
        if (writeKey_ != Kind::absent && writeKey_ != Kind::string) return "\"writeKey\" must be a string";
        return messagesWhy_;
    }

private:
    enum class Kind { absent, null, string, object, other };
    static Kind kindOf(const json* scalar, bool object) {
        if (scalar == nullptr) return object ? Kind::object : Kind::other;
        return scalar->is_null() ? Kind::null : scalar->is_string() ? Kind::string : Kind::other;
    }

    struct Message {
        std::map<std::string, Kind, std::less<>> kinds;  // of the members this reader checks
        std::optional<std::string> type, messageId, event, userId;
        bool ktPresent = false;
        std::size_t start = 0;
        Kind kind(std::string_view name) const {
            const auto found = kinds.find(name);
            return found == kinds.end() ? Kind::absent : found->second;
        }
    };

    std::array<CanonicalWriter*, 3> writers() { return {&whole_, &kt_, &integrations_}; }

    Level valueStarts(const json* scalar, bool object) {
        const bool container = scalar == nullptr;
        if (levels_.empty()) {
            rootObject_ = container && object;
            return rootObject_ ? Level::root : Level::other;
        }
        switch (levels_.back()) {
        case Level::root:
            if (key_ == "batch") {
                batchIsArray_ = container && !object;
                messageCount_ = 0;
                messagesWhy_.clear();
                items_.texts.clear();
                items_.ends.clear();
                return batchIsArray_ ? Level::items : Level::other;
            }
            if (key_ == "sentAt") sentAt_ = kindOf(scalar, object);
            if (key_ == "writeKey") writeKey_ = kindOf(scalar, object);
            return Level::other;
        case Level::items: {
            const std::size_t index = messageCount_++;
            if (container && object) {
                message_ = Message();
                message_.start = items_.texts.size();
                if (messagesWhy_.empty()) whole_.begin();
                return Level::item;
            }
            messageRefused(index, "must be an object");
            return Level::other;
        }
        case Level::item: {
            static constexpr const char* kChecked[] = {"type",   "messageId", "anonymousId",  "userId",   "event",
                                                       "properties", "traits", "context", "integrations", "timestamp"};
            if (std::none_of(std::begin(kChecked), std::end(kChecked), [&](const char* k) { return key_ == k; }))
                return Level::other;
            message_.kinds[key_] = kindOf(scalar, object);
            if (key_ == "type") message_.type = stringOf(scalar);
            if (key_ == "messageId") message_.messageId = stringOf(scalar);
            if (key_ == "event") message_.event = stringOf(scalar);
            if (key_ == "userId") message_.userId = stringOf(scalar);
            if (key_ == "context") message_.ktPresent = false;
            if (key_ == "integrations" && messagesWhy_.empty()) {
                integrationsText_.clear();
                integrations_.begin();
            }
            return key_ == "context" && container && object ? Level::context : Level::other;
        }
        case Level::context:
            if (key_ == "kt" && messagesWhy_.empty()) {
                message_.ktPresent = true;
                ktText_.clear();
                kt_.begin();
            }
            return Level::other;
        default:
            return Level::other;
        }
    }

    void messageRefused(std::size_t index, const std::string& why) {
        if (messagesWhy_.empty()) messagesWhy_ = "message " + std::to_string(index) + ": " + why;
        items_.texts.clear();
        items_.ends.clear();
    }

    // The checks of the batch API, in its order; empty when the message passes.
    std::string messageFault() const {
        const Message& m = message_;
        if (!m.type || std::none_of(std::begin(kMessageTypes), std::end(kMessageTypes),
                                    [&](const char* known) { return *m.type == known; }))
            return "\"type\" must be one of track, identify, screen, page, group, alias";
        if (m.kind("messageId") != Kind::string) return "\"messageId\" must be a string";
        // A null id counts as absent; one of the two must be there.
        bool identified = false;
        for (const char* key : {"anonymousId", "userId"}) {
            const Kind kind = m.kind(key);
            if (kind == Kind::absent || kind == Kind::null) continue;
            if (kind != Kind::string) return std::string("\"") + key + "\" must be a string";
            identified = true;
        }
        if (!identified) return "\"anonymousId\" or \"userId\" is required";
        if (*m.type == "track" && !m.event) return "a track needs an \"event\" string";
        for (const char* key : {"properties", "traits", "context", "integrations"}) {
            const Kind kind = m.kind(key);
            if (kind != Kind::absent && kind != Kind::object) return std::string("\"") + key + "\" must be an object";
        }
        const Kind timestamp = m.kind("timestamp");
        if (timestamp != Kind::absent && timestamp != Kind::string) return "\"timestamp\" must be a string";
        return {};
    }

    void messageEnds() {
        const std::size_t index = messageCount_ - 1;
        if (const std::string fault = messageFault(); !fault.empty()) return messageRefused(index, fault);
        if (!messagesWhy_.empty()) return;
        const Message& m = message_;
        auto field = [&](std::string_view text) {
            items_.texts += text;
            items_.ends.push_back(items_.texts.size());
        };
        field("");  // the whole message, written already
        field(m.ktPresent ? std::string_view(ktText_) : "null");
        field(m.kind("integrations") != Kind::absent ? std::string_view(integrationsText_) : "null");
        field(*m.messageId);
        field(*m.type);
        field(*m.type == "track" ? *m.event : *m.type == "identify" && m.userId ? *m.userId : std::string());
    }

    UploadItems& items_;
    std::string ktText_, integrationsText_;
    CanonicalWriter whole_, kt_, integrations_;
    std::vector<Level> levels_;
    std::string key_;
    bool rootObject_ = false, batchIsArray_ = false;
    Kind sentAt_ = Kind::absent, writeKey_ = Kind::absent;
    std::size_t messageCount_ = 0;
    std::string messagesWhy_;
    Message message_;
};

}  // namespace

UploadItems readEventsUpload(std::string_view text) { return readWith<EventsReader>(text, eventFieldCount); }

UploadItems readBatchUpload(std::string_view text) { return readWith<BatchReader>(text, messageFieldCount); }

}  // namespace kt::gateway
