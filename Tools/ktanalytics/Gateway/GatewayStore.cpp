#include "Gateway/GatewayStore.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdint>
#include <ctime>
#include <string_view>

#include <strings.h>
#include <nlohmann/json.hpp>
#include <sqlite3.h>

namespace kt::gateway {

namespace {

using nlohmann::json;

std::string dumped(const json& value) { return value.dump(-1, ' ', false, json::error_handler_t::replace); }

// The text stays in place until the statement is stepped and reset.
void bindText(sqlite3_stmt* statement, int column, std::string_view text) {
    sqlite3_bind_text64(statement, column, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8);
}

// A string member as is, a number as its JSON text, anything else as nothing.
// An item's violations; items past the end of the list keep every rule.
const std::vector<Violation>& itemViolations(const std::vector<std::vector<Violation>>& violations, std::size_t i) {
    static const std::vector<Violation> none;
    return i < violations.size() ? violations[i] : none;
}

std::string textOf(const json& value) {
    if (value.is_string()) return value.get<std::string>();
    if (value.is_number()) return value.dump();
    return {};
}

const json& member(const json& object, const char* key) {
    static const json nothing;
    if (!object.is_object()) return nothing;
    const auto it = object.find(key);
    return it == object.end() ? nothing : *it;
}

std::string firstText(const json& object, const char* key, const char* otherwise) {
    std::string text = textOf(member(object, key));
    return text.empty() ? textOf(member(object, otherwise)) : text;
}

// The arrivals of the three roads, as told when stored and as listed later.
Arrival eventArrival(std::chrono::system_clock::time_point time, std::string receivedAt, std::string name,
                     std::string_view version, std::string_view payload, std::vector<Violation> violations) {
    const json attributes = json::parse(payload, nullptr, false);
    std::string whole = R"({"event":)" + dumped(name) + R"(,"payload":)" + std::string(payload) + R"(,"version":)" +
                        dumped(std::string(version)) + "}";
    return Arrival{.road = Road::gatewayEvent,
                   .time = time,
                   .receivedAt = std::move(receivedAt),
                   .name = std::move(name),
                   .user = firstText(attributes, "user", "anonymous_id"),
                   .clientId = textOf(member(attributes, "client_id")),
                   .json = std::move(whole),
                   .violations = std::move(violations)};
}

Arrival messageArrival(std::chrono::system_clock::time_point time, std::string receivedAt, const std::string& type,
                       std::string_view name, std::string_view whole, std::vector<Violation> violations) {
    const json message = json::parse(whole, nullptr, false);
    return Arrival{.road = Road::productAnalytics,
                   .time = time,
                   .receivedAt = std::move(receivedAt),
                   .name = type == "track" ? std::string(name) : type,
                   .user = firstText(message, "userId", "anonymousId"),
                   .clientId = textOf(member(member(member(message, "context"), "kt"), "client_application_id")),
                   .json = std::string(whole),
                   .violations = std::move(violations)};
}

Arrival trackingArrival(std::chrono::system_clock::time_point time, std::string receivedAt, const std::string& method,
                        const std::string& target, std::string path, const std::string& headers) {
    return Arrival{.road = Road::tracking,
                   .time = time,
                   .receivedAt = std::move(receivedAt),
                   .name = std::move(path),
                   .user = {},
                   .clientId = {},
                   .json = R"({"headers":)" + headers + R"(,"method":)" + dumped(method) + R"(,"target":)" +
                           dumped(target) + "}",
                   .violations = {}};
}

}  // namespace

std::string_view roadName(Road road) {
    switch (road) {
        case Road::gatewayEvent: return "event";
        case Road::productAnalytics: return "message";
        case Road::tracking: return "tracking";
    }
    return "";
}

std::string utcText(std::chrono::system_clock::time_point time) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    const auto millis =
        std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count() % 1000;
    std::tm tm{};
    gmtime_r(&seconds, &tm);
    char text[32];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", tm.tm_year + 1900, tm.tm_mon + 1,
                  tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<int>(millis));
    return text;
}

bool isCredential(const std::string& header) {
    for (const char* name : {"Authorization", "Proxy-Authorization", "Cookie"})
        if (strcasecmp(header.c_str(), name) == 0) return true;
    return false;
}

GatewayStore::GatewayStore(std::string dbPath, std::size_t maxListingBytes, ErrorNote& errors)
    : dbPath_(std::move(dbPath)), maxListingBytes_(maxListingBytes), errors_(errors) {}

GatewayStore::~GatewayStore() { sqlite3_close(db_); }

bool GatewayStore::exec(const char* sql) {
    char* message = nullptr;
    if (sqlite3_exec(db_, sql, nullptr, nullptr, &message) == SQLITE_OK) return true;
    errors_.set(std::string("SQLite: ") + (message != nullptr ? message : sqlite3_errmsg(db_)));
    sqlite3_free(message);
    return false;
}

bool GatewayStore::isOpen() const {
    std::lock_guard lock(dbMutex_);
    return db_ != nullptr;
}

bool GatewayStore::open() {
    std::lock_guard lock(dbMutex_);
    const std::string path = dbPath_.empty() ? ":memory:" : dbPath_;
    if (sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                        nullptr) != SQLITE_OK) {
        errors_.set("cannot open " + path + ": " + (db_ != nullptr ? sqlite3_errmsg(db_) : "out of memory"));
        sqlite3_close(db_);
        db_ = nullptr;
        return false;
    }
    sqlite3_busy_timeout(db_, 5000);
    // Each upload commits once; WAL with NORMAL syncing keeps those commits cheap and
    // loses at most the last ones on a power cut, never the file.
    if (!dbPath_.empty() && !exec("PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;")) return false;
    return exec("CREATE TABLE IF NOT EXISTS messages ("
                "id INTEGER PRIMARY KEY AUTOINCREMENT, message_id TEXT NOT NULL, type TEXT NOT NULL, "
                "name TEXT NOT NULL, kt TEXT NOT NULL, integrations TEXT NOT NULL, message TEXT NOT NULL, "
                "headers TEXT NOT NULL, authorization TEXT NOT NULL, gzip INTEGER NOT NULL, "
                "received_at TEXT NOT NULL);"
                // Every stored message is looked up by its id to count duplicates.
                "CREATE INDEX IF NOT EXISTS messages_by_message_id ON messages (message_id);"
                "CREATE TABLE IF NOT EXISTS events ("
                "id INTEGER PRIMARY KEY AUTOINCREMENT, event TEXT NOT NULL, version TEXT NOT NULL, "
                "payload TEXT NOT NULL, headers TEXT NOT NULL, received_at TEXT NOT NULL);"
                "CREATE TABLE IF NOT EXISTS tracking_requests ("
                "id INTEGER PRIMARY KEY AUTOINCREMENT, method TEXT NOT NULL, target TEXT NOT NULL, "
                "headers TEXT NOT NULL, received_at TEXT NOT NULL);"
                "CREATE TABLE IF NOT EXISTS violations ("
                "id INTEGER PRIMARY KEY AUTOINCREMENT, message_id TEXT NOT NULL, event TEXT NOT NULL, "
                "rule TEXT NOT NULL, key TEXT, road TEXT NOT NULL, detail TEXT NOT NULL, refused INTEGER NOT NULL, "
                "received_at TEXT NOT NULL);");
}

bool GatewayStore::insertViolations(const std::string& id, std::string_view event, Road road,
                                    const std::vector<Violation>& violations, const std::string& receivedAt,
                                    bool refused) {
    if (violations.empty()) return true;
    sqlite3_stmt* s = nullptr;
    bool ok = sqlite3_prepare_v2(db_, "INSERT INTO violations (message_id, event, rule, key, road, detail, refused, "
                                      "received_at) VALUES (?, ?, ?, ?, ?, ?, ?, ?)", -1, &s, nullptr) == SQLITE_OK;
    for (std::size_t i = 0; ok && i < violations.size(); ++i) {
        const Violation& v = violations[i];
        bindText(s, 1, id);
        bindText(s, 2, event);
        bindText(s, 3, v.rule);
        if (v.key)
            bindText(s, 4, *v.key);
        else
            sqlite3_bind_null(s, 4);
        bindText(s, 5, roadName(road));
        bindText(s, 6, v.detail);
        sqlite3_bind_int(s, 7, refused ? 1 : 0);
        bindText(s, 8, receivedAt);
        ok = sqlite3_step(s) == SQLITE_DONE;
        sqlite3_reset(s);
    }
    if (!ok) errors_.set(std::string("SQLite: ") + sqlite3_errmsg(db_));
    sqlite3_finalize(s);
    return ok;
}

void GatewayStore::countViolations(const std::vector<std::vector<Violation>>& violations) {
    std::lock_guard lock(stateMutex_);
    for (const auto& item : violations)
        for (const Violation& v : item) ++statistics_.violations[v.rule];
}

bool GatewayStore::endTransaction(bool ok) {
    if (ok && exec("COMMIT")) return true;
    if (!ok) exec("ROLLBACK");
    return false;
}

bool GatewayStore::recordRefused(Road road, const std::vector<RefusedItem>& items) {
    const std::string receivedAt = utcText(std::chrono::system_clock::now());
    std::vector<std::vector<Violation>> counted;
    {
        std::lock_guard lock(dbMutex_);
        if (!exec("BEGIN")) return false;
        bool ok = true;
        for (const RefusedItem& item : items) {
            ok = ok && insertViolations(item.id, item.event, road, item.violations, receivedAt, true);
            counted.push_back(item.violations);
        }
        if (!endTransaction(ok)) return false;
    }
    countViolations(counted);
    return true;
}

bool GatewayStore::reset() {
    {
        std::lock_guard lock(dbMutex_);
        if (!exec("BEGIN; DELETE FROM events; DELETE FROM messages; DELETE FROM tracking_requests; "
                  "DELETE FROM violations; COMMIT;")) {
            exec("ROLLBACK");
            return false;
        }
    }
    std::lock_guard lock(stateMutex_);
    statistics_ = GatewayStatistics{};
    return true;
}

std::size_t GatewayStore::addArrivalObserver(std::function<void(const Arrival&)> observer) {
    std::lock_guard lock(observerMutex_);
    const std::size_t id = nextObserver_++;
    if (observer) observers_.emplace_back(id, std::make_shared<const Observer>(std::move(observer)));
    return id;
}

void GatewayStore::removeArrivalObserver(std::size_t id) {
    std::lock_guard lock(observerMutex_);
    std::erase_if(observers_, [id](const auto& entry) { return entry.first == id; });
}

bool GatewayStore::observed() const {
    std::lock_guard lock(observerMutex_);
    return !observers_.empty();
}

void GatewayStore::tell(const std::vector<Arrival>& arrivals) const {
    if (arrivals.empty()) return;
    std::vector<std::shared_ptr<const Observer>> observers;
    {
        std::lock_guard lock(observerMutex_);
        for (const auto& [id, observer] : observers_) observers.push_back(observer);
    }
    for (const Arrival& arrival : arrivals)
        for (const auto& observer : observers) (*observer)(arrival);
}

bool GatewayStore::storeEvents(const UploadItems& elements, const std::string& headers, const ReceivedBody& body,
                               const std::vector<std::vector<Violation>>& violations) {
    auto of = [&](std::size_t i) -> const std::vector<Violation>& { return itemViolations(violations, i); };
    const auto now = std::chrono::system_clock::now();
    const std::string receivedAt = utcText(now);
    {
        std::lock_guard lock(dbMutex_);
        if (!exec("BEGIN")) return false;
        sqlite3_stmt* s = nullptr;
        bool ok = sqlite3_prepare_v2(db_, "INSERT INTO events (event, version, payload, headers, received_at) "
                                          "VALUES (?, ?, ?, ?, ?)", -1, &s, nullptr) == SQLITE_OK;
        for (std::size_t i = 0; ok && i < elements.size(); ++i) {
            int column = 0;
            for (EventField field : {eventName, eventVersion, eventPayload})
                bindText(s, ++column, elements.field(i, field));
            sqlite3_bind_text(s, 4, headers.c_str(), -1, SQLITE_TRANSIENT);
            sqlite3_bind_text(s, 5, receivedAt.c_str(), -1, SQLITE_TRANSIENT);
            ok = sqlite3_step(s) == SQLITE_DONE;
            sqlite3_reset(s);
            if (ok && !of(i).empty())
                ok = insertViolations("event-" + std::to_string(sqlite3_last_insert_rowid(db_)),
                                      elements.field(i, eventName), Road::gatewayEvent, of(i), receivedAt, false);
        }
        if (!ok) errors_.set(std::string("SQLite: ") + sqlite3_errmsg(db_));
        sqlite3_finalize(s);
        if (!endTransaction(ok)) return false;
    }
    {
        std::lock_guard lock(stateMutex_);
        statistics_.events += elements.size();
        statistics_.bytesCompressed += body.received;
        statistics_.bytesRaw += body.raw;
    }
    countViolations(violations);
    if (!observed()) return true;
    std::vector<Arrival> arrivals;
    for (std::size_t i = 0; i < elements.size(); ++i)
        arrivals.push_back(eventArrival(now, receivedAt, std::string(elements.field(i, eventName)),
                                        elements.field(i, eventVersion), elements.field(i, eventPayload), of(i)));
    tell(arrivals);
    return true;
}

bool GatewayStore::storeMessages(const UploadItems& messages, const std::string& headers,
                                 const std::string& authorization, const ReceivedBody& body,
                                 const std::vector<std::vector<Violation>>& violations, std::size_t& duplicates) {
    auto of = [&](std::size_t i) -> const std::vector<Violation>& { return itemViolations(violations, i); };
    const auto now = std::chrono::system_clock::now();
    const std::string receivedAt = utcText(now);
    duplicates = 0;
    {
        std::lock_guard lock(dbMutex_);
        if (!exec("BEGIN")) return false;
        sqlite3_stmt* seen = nullptr;
        sqlite3_stmt* insert = nullptr;
        bool ok = sqlite3_prepare_v2(db_, "SELECT EXISTS (SELECT 1 FROM messages WHERE message_id = ?)", -1, &seen,
                                     nullptr) == SQLITE_OK &&
                  sqlite3_prepare_v2(db_, "INSERT INTO messages (message_id, type, name, kt, integrations, message, "
                                          "headers, authorization, gzip, received_at) "
                                          "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)", -1, &insert, nullptr) == SQLITE_OK;
        for (std::size_t i = 0; ok && i < messages.size(); ++i) {
            bindText(seen, 1, messages.field(i, messageId));
            ok = sqlite3_step(seen) == SQLITE_ROW;
            if (ok && sqlite3_column_int(seen, 0) != 0) ++duplicates;
            sqlite3_reset(seen);
            int column = 0;
            for (MessageField field :
                 {messageId, messageType, messageName, messageKt, messageIntegrations, messageWhole})
                bindText(insert, ++column, messages.field(i, field));
            for (const std::string* text : {&headers, &authorization})
                sqlite3_bind_text(insert, ++column, text->c_str(), -1, SQLITE_TRANSIENT);
            sqlite3_bind_int(insert, ++column, body.gzip ? 1 : 0);
            sqlite3_bind_text(insert, ++column, receivedAt.c_str(), -1, SQLITE_TRANSIENT);
            ok = ok && sqlite3_step(insert) == SQLITE_DONE;
            sqlite3_reset(insert);
            if (ok && !of(i).empty())
                ok = insertViolations(std::string(messages.field(i, messageId)), messages.field(i, messageName),
                                      Road::productAnalytics, of(i), receivedAt, false);
        }
        if (!ok) errors_.set(std::string("SQLite: ") + sqlite3_errmsg(db_));
        sqlite3_finalize(seen);
        sqlite3_finalize(insert);
        if (!endTransaction(ok)) return false;
    }
    {
        std::lock_guard lock(stateMutex_);
        statistics_.messages += messages.size();
        statistics_.duplicateMessages += duplicates;
        statistics_.bytesCompressed += body.received;
        statistics_.bytesRaw += body.raw;
    }
    countViolations(violations);
    if (!observed()) return true;
    std::vector<Arrival> arrivals;
    for (std::size_t i = 0; i < messages.size(); ++i)
        arrivals.push_back(messageArrival(now, receivedAt, std::string(messages.field(i, messageType)),
                                          messages.field(i, messageName), messages.field(i, messageWhole), of(i)));
    tell(arrivals);
    return true;
}

bool GatewayStore::storeTrackingRequest(const std::string& method, const std::string& target,
                                        const std::string& path, const std::string& headers) {
    const auto now = std::chrono::system_clock::now();
    const std::string receivedAt = utcText(now);
    {
        std::lock_guard lock(dbMutex_);
        sqlite3_stmt* s = nullptr;
        bool ok = sqlite3_prepare_v2(db_, "INSERT INTO tracking_requests (method, target, headers, received_at) "
                                          "VALUES (?, ?, ?, ?)", -1, &s, nullptr) == SQLITE_OK;
        if (ok) {
            for (int column = 1; const std::string* text : {&method, &target, &headers, &receivedAt})
                sqlite3_bind_text(s, column++, text->c_str(), -1, SQLITE_TRANSIENT);
            ok = sqlite3_step(s) == SQLITE_DONE;
        }
        if (!ok) errors_.set(std::string("SQLite: ") + sqlite3_errmsg(db_));
        sqlite3_finalize(s);
        if (!ok) return false;
    }
    // "/track/impression/123" counts under "/track/impression".
    const std::string prefix = path.substr(0, path.find('/', std::string("/track/").size()));
    {
        std::lock_guard lock(stateMutex_);
        ++statistics_.trackingRequests;
        ++statistics_.trackingByPrefix[prefix];
    }
    if (observed())
        tell({trackingArrival(now, receivedAt, method, target, path, headers)});
    return true;
}

void GatewayStore::count(const std::function<void(GatewayStatistics&)>& change) {
    std::lock_guard lock(stateMutex_);
    change(statistics_);
}

GatewayStatistics GatewayStore::statistics() const {
    std::lock_guard lock(stateMutex_);
    return statistics_;
}

namespace {

// Runs `sql` (newest first, one `LIMIT ?`) and hands each row to `take` until it returns
// false; the rows kept come back oldest first.
template <class Row, class Take>
std::vector<Row> newestRows(sqlite3* db, const char* sql, std::size_t limit, Take take) {
    std::vector<Row> result;
    if (db == nullptr) return result;
    sqlite3_stmt* s = nullptr;
    if (sqlite3_prepare_v2(db, sql, -1, &s, nullptr) != SQLITE_OK) return result;
    sqlite3_bind_int64(s, 1, static_cast<sqlite3_int64>(std::min<std::size_t>(limit, INT64_MAX)));
    auto text = [s](int column) {
        const auto* t = sqlite3_column_text(s, column);
        return t != nullptr ? std::string(reinterpret_cast<const char*>(t)) : std::string();
    };
    while (sqlite3_step(s) == SQLITE_ROW && take(s, text, result)) {
    }
    sqlite3_finalize(s);
    std::reverse(result.begin(), result.end());
    return result;
}

}  // namespace

std::vector<StoredEvent> GatewayStore::lastEvents(std::size_t limit, std::size_t byteBudget) const {
    std::size_t taken = 0;
    std::lock_guard lock(dbMutex_);
    return newestRows<StoredEvent>(
        db_, "SELECT event, version, payload, headers, received_at FROM events ORDER BY id DESC LIMIT ?", limit,
        [&](sqlite3_stmt* s, auto& text, std::vector<StoredEvent>& result) {
            const std::size_t size = static_cast<std::size_t>(sqlite3_column_bytes(s, 2)) +
                                     static_cast<std::size_t>(sqlite3_column_bytes(s, 3));
            if (!result.empty() && taken + size > byteBudget) return false;
            taken += size;
            result.push_back(StoredEvent{text(0), text(1), text(2), text(3), text(4)});
            return true;
        });
}

// As `lastEvents`, the budget counting the message, its kt, integrations and headers.
std::vector<StoredMessage> GatewayStore::lastMessages(std::size_t limit, std::size_t byteBudget) const {
    std::size_t taken = 0;
    std::lock_guard lock(dbMutex_);
    return newestRows<StoredMessage>(
        db_,
        "SELECT message_id, type, name, kt, integrations, message, headers, authorization, gzip, received_at "
        "FROM messages ORDER BY id DESC LIMIT ?",
        limit, [&](sqlite3_stmt* s, auto& text, std::vector<StoredMessage>& result) {
            std::size_t size = 0;
            for (int column : {3, 4, 5, 6}) size += static_cast<std::size_t>(sqlite3_column_bytes(s, column));
            if (!result.empty() && taken + size > byteBudget) return false;
            taken += size;
            result.push_back(StoredMessage{text(0), text(1), text(2), text(3), text(4), text(5), text(6), text(7),
                                           sqlite3_column_int(s, 8) != 0, text(9)});
            return true;
        });
}

std::vector<StoredTrackingRequest> GatewayStore::lastTrackingRequests(std::size_t limit) const {
    std::lock_guard lock(dbMutex_);
    return newestRows<StoredTrackingRequest>(
        db_, "SELECT method, target, headers, received_at FROM tracking_requests ORDER BY id DESC LIMIT ?", limit,
        [](sqlite3_stmt*, auto& text, std::vector<StoredTrackingRequest>& result) {
            result.push_back({text(0), text(1), text(2), text(3)});
            return true;
        });
}

std::string GatewayStore::statisticsJSON() const {
    const GatewayStatistics s = statistics();
    return dumped(json{{"requests", s.requests},
                       {"events", s.events},
                       {"bytes_compressed", s.bytesCompressed},
                       {"bytes_raw", s.bytesRaw},
                       {"failures_injected", s.failuresInjected},
                       {"rejected", s.rejected},
                       {"refused_by_reason",
                        {{"request_deadline", s.pastDeadline}, {"memory_budget", s.overMemoryBudget}}},
                       {"tracking_requests", s.trackingRequests},
                       {"tracking_by_prefix", s.trackingByPrefix},
                       {"batch_requests", s.batchRequests},
                       {"messages", s.messages},
                       {"duplicate_messages", s.duplicateMessages},
                       {"violations", s.violations}});
}

std::string GatewayStore::eventsListingJSON(std::size_t limit) const {
    // Payloads go out as stored (JSON written by this gateway) rather than parsed and
    // written again, which would take many times their size in memory.
    std::string body = "[";
    for (const StoredEvent& e : lastEvents(limit, maxListingBytes_)) {
        json headers = json::parse(e.headers, nullptr, false);
        if (headers.is_discarded()) headers = nullptr;
        // Databases written before credentials were masked may still hold their values.
        if (headers.is_object())
            for (auto& [name, value] : headers.items())
                if (isCredential(name)) value = "present";
        if (body.size() > 1) body += ',';
        body += R"({"event":)" + dumped(e.event) + R"(,"headers":)" + dumped(headers) + R"(,"payload":)" +
                (e.payload.empty() ? "null" : e.payload) + R"(,"received_at":)" + dumped(e.receivedAt) +
                R"(,"version":)" + dumped(e.version) + "}";
    }
    return body + "]";
}

std::string GatewayStore::messagesListingJSON(std::size_t limit) const {
    // As for events: the JSON texts this gateway wrote go out as stored.
    std::string body = "[";
    for (const StoredMessage& m : lastMessages(limit, maxListingBytes_)) {
        if (body.size() > 1) body += ',';
        body += R"({"authorization":)" + dumped(m.authorization) + R"(,"gzip":)" + (m.gzip ? "true" : "false") +
                R"(,"headers":)" + m.headers + R"(,"integrations":)" + m.integrations + R"(,"kt":)" + m.kt +
                R"(,"message":)" + m.message + R"(,"message_id":)" + dumped(m.messageId) + R"(,"name":)" +
                dumped(m.name) + R"(,"received_at":)" + dumped(m.receivedAt) + R"(,"type":)" + dumped(m.type) + "}";
    }
    return body + "]";
}

std::string GatewayStore::violationsListingJSON(std::size_t limit) const {
    json listing = json::array();
    std::lock_guard lock(dbMutex_);
    newestRows<int>(db_,
                    "SELECT message_id, event, rule, key, road, detail, refused, received_at FROM violations "
                    "ORDER BY id DESC LIMIT ?",
                    limit, [&](sqlite3_stmt* s, auto& text, std::vector<int>&) {
                        listing.push_back(json{{"messageId", text(0)},
                                               {"event", text(1)},
                                               {"rule", text(2)},
                                               {"key", sqlite3_column_type(s, 3) == SQLITE_NULL ? json(nullptr)
                                                                                                : json(text(3))},
                                               {"road", text(4)},
                                               {"detail", text(5)},
                                               {"refused", sqlite3_column_int(s, 6) != 0},
                                               {"received_at", text(7)}});
                        return true;
                    });
    return dumped(listing);
}

std::string GatewayStore::trackingListingJSON(std::size_t limit) const {
    json listing = json::array();
    for (const auto& r : lastTrackingRequests(limit)) {
        json headers = json::parse(r.headers, nullptr, false);
        listing.push_back(json{{"method", r.method},
                               {"target", r.target},
                               {"headers", headers.is_discarded() ? json(nullptr) : headers},
                               {"received_at", r.receivedAt}});
    }
    return dumped(listing);
}

namespace {

std::chrono::system_clock::time_point timeOfUTCText(const std::string& text) {
    std::tm tm{};
    int millis = 0;
    if (std::sscanf(text.c_str(), "%d-%d-%dT%d:%d:%d.%dZ", &tm.tm_year, &tm.tm_mon, &tm.tm_mday, &tm.tm_hour,
                    &tm.tm_min, &tm.tm_sec, &millis) != 7)
        return {};
    tm.tm_year -= 1900;
    tm.tm_mon -= 1;
    return std::chrono::system_clock::from_time_t(timegm(&tm)) + std::chrono::milliseconds(millis);
}

// A tracking request's path as its arrival names it: without the query, percent-decoded.
std::string pathOfTarget(const std::string& target) {
    const std::string raw = target.substr(0, target.find('?'));
    std::string path;
    for (std::size_t i = 0; i < raw.size(); ++i) {
        if (raw[i] == '%' && i + 2 < raw.size() && std::isxdigit(static_cast<unsigned char>(raw[i + 1])) &&
            std::isxdigit(static_cast<unsigned char>(raw[i + 2]))) {
            path += static_cast<char>(std::stoi(raw.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            path += raw[i];
        }
    }
    return path;
}

}  // namespace

std::vector<Arrival> GatewayStore::lastArrivals(std::size_t limit) const {
    std::vector<Arrival> arrivals;
    std::lock_guard lock(dbMutex_);
    if (db_ == nullptr) return arrivals;
    sqlite3_stmt* broken = nullptr;
    if (sqlite3_prepare_v2(db_, "SELECT rule, key, detail FROM violations WHERE message_id = ? AND received_at = ? "
                                "AND refused = 0 ORDER BY id", -1, &broken, nullptr) != SQLITE_OK)
        return arrivals;
    auto violationsOf = [broken](const std::string& id, const std::string& receivedAt) {
        std::vector<Violation> found;
        bindText(broken, 1, id);
        bindText(broken, 2, receivedAt);
        while (sqlite3_step(broken) == SQLITE_ROW) {
            auto text = [broken](int column) {
                const auto* t = sqlite3_column_text(broken, column);
                return t != nullptr ? std::string(reinterpret_cast<const char*>(t)) : std::string();
            };
            found.push_back(Violation{.rule = text(0),
                                      .key = sqlite3_column_type(broken, 1) == SQLITE_NULL
                                                 ? std::nullopt
                                                 : std::optional<std::string>(text(1)),
                                      .detail = text(2)});
        }
        sqlite3_reset(broken);
        return found;
    };
    newestRows<int>(db_, "SELECT id, event, version, payload, received_at FROM events ORDER BY id DESC LIMIT ?", limit,
                    [&](sqlite3_stmt* s, auto& text, std::vector<int>&) {
                        const std::string receivedAt = text(4);
                        arrivals.push_back(eventArrival(timeOfUTCText(receivedAt), receivedAt, text(1), text(2), text(3),
                                                        violationsOf("event-" + text(0), receivedAt)));
                        return true;
                    });
    newestRows<int>(db_, "SELECT message_id, type, name, message, received_at FROM messages ORDER BY id DESC LIMIT ?",
                    limit, [&](sqlite3_stmt*, auto& text, std::vector<int>&) {
                        const std::string receivedAt = text(4);
                        arrivals.push_back(messageArrival(timeOfUTCText(receivedAt), receivedAt, text(1), text(2),
                                                          text(3), violationsOf(text(0), receivedAt)));
                        return true;
                    });
    newestRows<int>(db_, "SELECT method, target, headers, received_at FROM tracking_requests ORDER BY id DESC LIMIT ?",
                    limit, [&](sqlite3_stmt*, auto& text, std::vector<int>&) {
                        const std::string receivedAt = text(3), target = text(1);
                        arrivals.push_back(trackingArrival(timeOfUTCText(receivedAt), receivedAt, text(0), target,
                                                           pathOfTarget(target), text(2)));
                        return true;
                    });
    sqlite3_finalize(broken);
    // Each road's rows came newest first; merged by time, the items of one request keep their order.
    std::stable_sort(arrivals.begin(), arrivals.end(),
                     [](const Arrival& a, const Arrival& b) { return a.receivedAt > b.receivedAt; });
    if (arrivals.size() > limit) arrivals.resize(limit);
    return arrivals;
}

}  // namespace kt::gateway
