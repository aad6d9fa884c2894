#include "Gateway/DevelopmentGateway.h"
#include "Gateway/DeadlineStream.h"
#include "Gateway/UploadReader.h"
#include "KTAnalytics/Platform/JSONSerialization.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <condition_variable>
#include <ctime>
#include <limits>
#include <list>
#include <mutex>
#include <ostream>
#include <random>
#include <system_error>
#include <thread>
#include <utility>

#include <httplib.h>
#include <malloc.h>
#include <strings.h>
#include <sys/socket.h>
#include <nlohmann/json.hpp>
#include <sqlite3.h>
#include <zlib.h>

namespace kt::gateway {

namespace {

using nlohmann::json;

// httplib inflates gzip bodies by itself when "Content-Encoding" says so; the gateway must
// see the bytes as sent to check them, so the header is moved aside before the body is read.
constexpr const char* kSetAsideEncoding = "X-Gateway-Received-Content-Encoding";
// httplib runs a request's handler and then its logger on one worker thread, and calls the
// logger only after the response is on its way, when the client may already have sent its
// next request on another connection. Routed requests are therefore logged by their handler
// before answering, so the log keeps the order of handling; the logger covers the rest
// (unknown paths, unreadable requests).
thread_local bool tLoggedByHandler = false;
thread_local std::size_t tEventsStored = 0;
thread_local std::size_t tMessagesStored = 0;
thread_local std::size_t tDuplicatesStored = 0;
// The connection this worker thread serves, for handlers to tell a body cut off by the request
// deadline from one that could not be read.
thread_local const DeadlineStream* tConnection = nullptr;
bool requestPastDeadline() { return tConnection != nullptr && tConnection->pastDeadline(); }
constexpr std::size_t kDefaultEventsLimit = 100;
// A body past its limit is still read and dropped up to this much, so an honest client gets
// its 413 on a connection left in step; past it the connection is given up.
constexpr std::size_t kDrainBytes = std::size_t{64} << 20;
// Threads serving connections at most; below it every connection gets a thread of its own,
// so clients that send slowly or not at all hold up only themselves.
constexpr std::size_t kMaximumWorkers = 1024;
constexpr std::chrono::seconds kWorkerIdleRetirement{10};
constexpr int kListenBacklog = 1024;
// A client silent for this long in the middle of a request, or between requests, is dropped.
constexpr time_t kReadTimeoutSeconds = 2;
constexpr time_t kWriteTimeoutSeconds = 5;
// What an upload refused for want of memory is told to wait: bodies are held for well under
// a second each, so the budget has room again by then.
constexpr const char* kBusyRetryAfterSeconds = "1";
// Decoding an upload at least this large leaves pieces of free memory behind in the workers'
// malloc arenas, which glibc keeps for later; they are handed back to the system at once
// (malloc_trim), so that one burst of large uploads does not leave the gateway hundreds of MiB
// larger for the rest of its run.
constexpr std::size_t kTrimAfterBytes = std::size_t{1} << 20;
constexpr int kLargeBlock = 1 << 20;

std::string utcNow() {
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto millis =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm tm{};
    gmtime_r(&seconds, &tm);
    char text[32];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", tm.tm_year + 1900, tm.tm_mon + 1,
                  tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<int>(millis));
    return text;
}

// Runs each job (one connection) on an idle thread, or on a new one while fewer than
// `maximum` exist; beyond that jobs wait their turn. Threads idle for a while retire.
class ElasticThreadPool final : public httplib::TaskQueue {
public:
    explicit ElasticThreadPool(std::size_t maximum) : maximum_(maximum) {}
    ~ElasticThreadPool() override { shutdown(); }

    void enqueue(std::function<void()> job) override {
        std::list<std::thread> retired;
        {
            std::lock_guard lock(mutex_);
            jobs_.push_back(std::move(job));
            if (jobs_.size() > idle_ && workers_.size() < maximum_) {
                const auto self = workers_.emplace(workers_.end());
                try {
                    // The new thread takes the lock before touching `self`, so it sees it assigned.
                    *self = std::thread([this, self] { work(self); });
                } catch (const std::system_error&) {
                    // Out of threads: the job waits for one of those running.
                    workers_.erase(self);
                    wake_.notify_one();
                }
            } else {
                wake_.notify_one();
            }
            retired.swap(retired_);
        }
        for (std::thread& t : retired) t.join();
    }

    // Lets the queued jobs run, then waits for every thread.
    void shutdown() override {
        std::unique_lock lock(mutex_);
        stopping_ = true;
        wake_.notify_all();
        allRetired_.wait(lock, [this] { return workers_.empty(); });
        std::list<std::thread> retired;
        retired.swap(retired_);
        lock.unlock();
        for (std::thread& t : retired) t.join();
    }

private:
    void work(std::list<std::thread>::iterator self) {
        std::unique_lock lock(mutex_);
        for (;;) {
            ++idle_;
            wake_.wait_for(lock, kWorkerIdleRetirement, [this] { return !jobs_.empty() || stopping_; });
            --idle_;
            if (jobs_.empty()) break;
            std::function<void()> job = std::move(jobs_.front());
            jobs_.pop_front();
            lock.unlock();
            job();
            lock.lock();
        }
        // Someone else joins this thread: the next `enqueue` or `shutdown`.
        retired_.splice(retired_.end(), workers_, self);
        if (workers_.empty()) allRetired_.notify_all();
    }

    const std::size_t maximum_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable allRetired_;
    std::list<std::function<void()>> jobs_;
    std::list<std::thread> workers_;
    std::list<std::thread> retired_;
    std::size_t idle_ = 0;
    bool stopping_ = false;
};

class HTTPServer final : public httplib::Server {
public:
    // httplib listens with a backlog of 5 and has no setting for it. Linux takes a new
    // backlog when listen is called again on a listening socket.
    bool widenBacklog(int backlog) { return ::listen(svr_sock_, backlog) == 0; }

    // Both set before the server listens.
    std::chrono::milliseconds requestDeadline{kDefaultRequestDeadline};
    // Told of each request past its deadline, and whether it was answered.
    std::function<void(bool answered)> pastDeadline;

private:
    // httplib's own connection loop bounds each read of a request but not the request as a
    // whole, so a client sending a byte a second holds its worker for ever. This loop is
    // httplib's, served by a stream that also fails reads once the request's deadline passes.
    bool process_and_close_socket(socket_t sock) override {
        DeadlineStream stream(sock, std::chrono::seconds(read_timeout_sec_), std::chrono::seconds(write_timeout_sec_));
        tConnection = &stream;
        bool ok = false;
        for (std::size_t left = keep_alive_max_count_; left > 0; --left) {
            if (!stream.awaitRequest(std::chrono::seconds(keep_alive_timeout_sec_),
                                     [this] { return svr_sock_ == INVALID_SOCKET; }))
                break;
            stream.startRequest(DeadlineStream::Clock::now() + requestDeadline);
            bool closed = false;
            ok = process_request(stream, left == 1, closed, nullptr);
            if (stream.pastDeadline()) {
                // Cut off before a request line httplib could answer: answered here.
                const bool answered = stream.answered();
                if (!answered) {
                    const std::string body = R"({"error":"the request did not arrive in time"})";
                    const std::string text = "HTTP/1.1 408 Request Timeout\r\nConnection: close\r\n"
                                             "Content-Type: application/json\r\nContent-Length: " +
                                             std::to_string(body.size()) + "\r\n\r\n" + body;
                    stream.write(text.data(), text.size());
                }
                if (pastDeadline) pastDeadline(answered);
                ok = false;
            }
            if (!ok || closed) break;
        }
        tConnection = nullptr;
        ::shutdown(sock, SHUT_RDWR);
        ::close(sock);
        return ok;
    }
};

// Bytes of request bodies held in memory at once, across connections.
class BodyBudget {
public:
    explicit BodyBudget(std::size_t limit) : limit_(limit) {}
    bool take(std::size_t bytes) {
        std::lock_guard lock(mutex_);
        if (bytes > limit_ - held_) return false;
        held_ += bytes;
        return true;
    }
    void give(std::size_t bytes) {
        std::lock_guard lock(mutex_);
        held_ -= bytes;
    }

private:
    const std::size_t limit_;
    std::mutex mutex_;
    std::size_t held_ = 0;  // guarded by mutex_
};

// One body as received, its bytes taken from the budget while it is held.
class HeldBody {
public:
    explicit HeldBody(BodyBudget& budget) : budget_(budget) {}
    ~HeldBody() { release(); }
    HeldBody(const HeldBody&) = delete;
    HeldBody& operator=(const HeldBody&) = delete;

    bool append(const char* data, std::size_t size) {
        if (!budget_.take(size)) return false;
        held_ += size;
        text_.append(data, size);
        return true;
    }
    void release() {
        std::string().swap(text_);
        budget_.give(std::exchange(held_, 0));
    }
    const std::string& text() const { return text_; }

private:
    BodyBudget& budget_;
    std::size_t held_ = 0;
    std::string text_;
};

enum class Inflated { complete, notGzip, tooLarge };

// Gzip only: a zlib or raw deflate stream is refused even though inflate (window bits 47,
// gzip or zlib by header) would take a zlib one. Trailing bytes after the stream are refused.
// Inflating stops as soon as the output passes `maximum`.
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

enum class BodyRead { complete, tooLarge, overBudget, pastDeadline, failed };

// Reads a body through httplib, keeping at most `maximum` bytes of it in `body` while the
// budget has room for them; past either, the rest is read and dropped.
BodyRead readBody(const httplib::ContentReader& read, const httplib::Response& response, std::size_t maximum,
                  HeldBody& body) {
    std::size_t received = 0;
    bool overBudget = false;
    const bool complete = read([&](const char* data, std::size_t size) {
        received += size;
        if (received <= maximum && !overBudget) {
            if (body.append(data, size)) return true;
            overBudget = true;
        }
        body.release();
        return received <= maximum || received - maximum <= kDrainBytes;
    });
    if (requestPastDeadline()) return BodyRead::pastDeadline;
    // httplib answers 413 by itself to a declared Content-Length past its payload limit.
    if (received > maximum || response.status == 413) return BodyRead::tooLarge;
    if (overBudget) return BodyRead::overBudget;
    return complete ? BodyRead::complete : BodyRead::failed;
}

bool startsLikeGzip(const std::string& body) {
    return body.size() >= 2 && static_cast<unsigned char>(body[0]) == 0x1f &&
           static_cast<unsigned char>(body[1]) == 0x8b;
}

bool isCredential(const std::string& header) {
    for (const char* name : {"Authorization", "Proxy-Authorization", "Cookie"})
        if (strcasecmp(header.c_str(), name) == 0) return true;
    return false;
}

json headersOf(const httplib::Request& request) {
    json headers = json::object();
    for (const auto& [name, value] : request.headers) {
        // httplib adds the socket's addresses as pseudo-headers; they were never sent.
        if (name == "LOCAL_ADDR" || name == "LOCAL_PORT" || name == "REMOTE_ADDR" || name == "REMOTE_PORT") continue;
        const std::string shown = name == kSetAsideEncoding ? "Content-Encoding" : name;
        headers[shown] = isCredential(name) ? "present" : value;
    }
    return headers;
}

std::string dumped(const json& value) { return value.dump(-1, ' ', false, json::error_handler_t::replace); }

void answerJSON(httplib::Response& response, int status, const json& body) {
    response.status = status;
    response.set_content(dumped(body), "application/json");
}

json eventsRefusal(const std::string& why) { return json{{"error", why}}; }
json batchRefusal(const std::string& why) { return json{{"success", false}, {"error", why}}; }

// What differs between the upload endpoints on the road they share.
struct UploadRoad {
    std::uint64_t GatewayStatistics::*requests;
    // A batch may come as plain JSON; an events upload must be gzip.
    bool plainAllowed;
    json (*refusal)(const std::string& why);
    UploadItems (*read)(std::string_view text);
};

constexpr UploadRoad kEventsRoad{&GatewayStatistics::requests, false, eventsRefusal, readEventsUpload};
constexpr UploadRoad kBatchRoad{&GatewayStatistics::batchRequests, true, batchRefusal, readBatchUpload};

struct ReceivedBody {
    std::size_t received = 0;  // bytes as sent
    std::size_t raw = 0;       // after gunzip
    bool gzip = false;
};

}  // namespace

struct DevelopmentGateway::Impl {
    const Configuration configuration;
    HTTPServer server;
    std::thread thread;
    int boundPort = 0;
    bool started = false;
    bool everStarted = false;
    std::atomic<bool> loopReturned{false};

    std::mutex decodeMutex;
    BodyBudget bodyBudget;
    mutable std::mutex dbMutex;
    sqlite3* db = nullptr;  // guarded by dbMutex

    mutable std::mutex stateMutex;
    GatewayStatistics statistics;  // guarded by stateMutex
    std::mt19937_64 random;        // guarded by stateMutex
    std::string error;             // guarded by stateMutex

    std::mutex logMutex;

    explicit Impl(Configuration c)
        : configuration(std::move(c)),
          bodyBudget(std::max(configuration.heldBodyBudgetBytes, configuration.maxBodyBytes)) {
        random.seed(configuration.seed ? *configuration.seed : std::random_device{}());
    }
    ~Impl() { sqlite3_close(db); }

    void setError(std::string text) {
        std::lock_guard lock(stateMutex);
        error = std::move(text);
    }

    void logLine(const std::string& line) {
        if (configuration.log == nullptr) return;
        std::lock_guard lock(logMutex);
        *configuration.log << line << std::endl;
    }

    bool exec(const char* sql) {
        char* message = nullptr;
        if (sqlite3_exec(db, sql, nullptr, nullptr, &message) == SQLITE_OK) return true;
        setError(std::string("SQLite: ") + (message != nullptr ? message : sqlite3_errmsg(db)));
        sqlite3_free(message);
        return false;
    }

    bool openDatabase() {
        const std::string path = configuration.dbPath.empty() ? ":memory:" : configuration.dbPath;
        if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                            nullptr) != SQLITE_OK) {
            setError("cannot open " + path + ": " + (db != nullptr ? sqlite3_errmsg(db) : "out of memory"));
            sqlite3_close(db);
            db = nullptr;
            return false;
        }
        sqlite3_busy_timeout(db, 5000);
        // Each upload commits once; WAL with NORMAL syncing keeps those commits cheap and
        // loses at most the last ones on a power cut, never the file.
        if (!configuration.dbPath.empty() && !exec("PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;")) return false;
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
                    "headers TEXT NOT NULL, received_at TEXT NOT NULL);");
    }

    // Draws whether this request is answered with the configured failure.
    bool injectFailure() {
        if (configuration.failRate <= 0.0) return false;
        std::lock_guard lock(stateMutex);
        if (std::uniform_real_distribution<double>(0.0, 1.0)(random) >= configuration.failRate) return false;
        ++statistics.failuresInjected;
        return true;
    }

    void delayIfConfigured() {
        if (configuration.delay.count() > 0) std::this_thread::sleep_for(configuration.delay);
    }

    bool storeEvents(const UploadItems& elements, const std::string& headers, const std::string& receivedAt) {
        std::lock_guard lock(dbMutex);
        if (!exec("BEGIN")) return false;
        sqlite3_stmt* s = nullptr;
        bool ok = sqlite3_prepare_v2(db, "INSERT INTO events (event, version, payload, headers, received_at) "
                                         "VALUES (?, ?, ?, ?, ?)", -1, &s, nullptr) == SQLITE_OK;
        for (std::size_t i = 0; ok && i < elements.size(); ++i) {
            int column = 0;
            for (EventField field : {eventName, eventVersion, eventPayload}) bindText(s, ++column, elements.field(i, field));
            sqlite3_bind_text(s, 4, headers.c_str(), -1, SQLITE_TRANSIENT);
            sqlite3_bind_text(s, 5, receivedAt.c_str(), -1, SQLITE_TRANSIENT);
            ok = sqlite3_step(s) == SQLITE_DONE;
            sqlite3_reset(s);
        }
        if (!ok) setError(std::string("SQLite: ") + sqlite3_errmsg(db));
        sqlite3_finalize(s);
        if (!ok) {
            exec("ROLLBACK");
            return false;
        }
        return exec("COMMIT");
    }

    // Stores every message in one transaction; `duplicates` counts those whose id was
    // already stored, earlier in this batch included.
    bool storeMessages(const UploadItems& messages, const std::string& headers, const std::string& authorization,
                       bool gzip, const std::string& receivedAt, std::size_t& duplicates) {
        std::lock_guard lock(dbMutex);
        if (!exec("BEGIN")) return false;
        sqlite3_stmt* seen = nullptr;
        sqlite3_stmt* insert = nullptr;
        bool ok = sqlite3_prepare_v2(db, "SELECT EXISTS (SELECT 1 FROM messages WHERE message_id = ?)", -1, &seen,
                                     nullptr) == SQLITE_OK &&
                  sqlite3_prepare_v2(db, "INSERT INTO messages (message_id, type, name, kt, integrations, message, "
                                         "headers, authorization, gzip, received_at) "
                                         "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)", -1, &insert, nullptr) == SQLITE_OK;
        for (std::size_t i = 0; ok && i < messages.size(); ++i) {
            bindText(seen, 1, messages.field(i, messageId));
            ok = sqlite3_step(seen) == SQLITE_ROW;
            if (ok && sqlite3_column_int(seen, 0) != 0) ++duplicates;
            sqlite3_reset(seen);
            int column = 0;
            for (MessageField field : {messageId, messageType, messageName, messageKt, messageIntegrations, messageWhole})
                bindText(insert, ++column, messages.field(i, field));
            for (const std::string* text : {&headers, &authorization})
                sqlite3_bind_text(insert, ++column, text->c_str(), -1, SQLITE_TRANSIENT);
            sqlite3_bind_int(insert, ++column, gzip ? 1 : 0);
            sqlite3_bind_text(insert, ++column, receivedAt.c_str(), -1, SQLITE_TRANSIENT);
            ok = ok && sqlite3_step(insert) == SQLITE_DONE;
            sqlite3_reset(insert);
        }
        if (!ok) setError(std::string("SQLite: ") + sqlite3_errmsg(db));
        sqlite3_finalize(seen);
        sqlite3_finalize(insert);
        if (!ok) {
            exec("ROLLBACK");
            return false;
        }
        return exec("COMMIT");
    }

    // The text stays in place until the statement is stepped and reset.
    static void bindText(sqlite3_stmt* statement, int column, std::string_view text) {
        sqlite3_bind_text64(statement, column, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8);
    }

    bool storeTrackingRequest(const httplib::Request& request) {
        std::lock_guard lock(dbMutex);
        sqlite3_stmt* s = nullptr;
        bool ok = sqlite3_prepare_v2(db, "INSERT INTO tracking_requests (method, target, headers, received_at) "
                                         "VALUES (?, ?, ?, ?)", -1, &s, nullptr) == SQLITE_OK;
        if (ok) {
            const std::string headers = dumped(headersOf(request));
            const std::string receivedAt = utcNow();
            sqlite3_bind_text(s, 1, request.method.c_str(), -1, SQLITE_TRANSIENT);
            sqlite3_bind_text(s, 2, request.target.c_str(), -1, SQLITE_TRANSIENT);
            sqlite3_bind_text(s, 3, headers.c_str(), -1, SQLITE_TRANSIENT);
            sqlite3_bind_text(s, 4, receivedAt.c_str(), -1, SQLITE_TRANSIENT);
            ok = sqlite3_step(s) == SQLITE_DONE;
        }
        if (!ok) setError(std::string("SQLite: ") + sqlite3_errmsg(db));
        sqlite3_finalize(s);
        return ok;
    }

    // Runs `sql` (newest first, one `LIMIT ?`) and hands each row to `row` until it returns
    // false; the rows kept come back oldest first.
    template <class Row, class Take>
    std::vector<Row> newestRows(const char* sql, std::size_t limit, Take take) const {
        std::vector<Row> result;
        std::lock_guard lock(dbMutex);
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

    // The newest `limit` events, oldest first; older ones are left out once the payloads and
    // headers taken pass `byteBudget` (the newest is always taken).
    std::vector<StoredEvent> lastEvents(std::size_t limit, std::size_t byteBudget) const {
        std::size_t taken = 0;
        return newestRows<StoredEvent>(
            "SELECT event, version, payload, headers, received_at FROM events ORDER BY id DESC LIMIT ?", limit,
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
    std::vector<StoredMessage> lastMessages(std::size_t limit, std::size_t byteBudget) const {
        std::size_t taken = 0;
        return newestRows<StoredMessage>(
            "SELECT message_id, type, name, kt, integrations, message, headers, authorization, gzip, received_at "
            "FROM messages ORDER BY id DESC LIMIT ?",
            limit, [&](sqlite3_stmt* s, auto& text, std::vector<StoredMessage>& result) {
                std::size_t size = 0;
                for (int column : {3, 4, 5, 6}) size += static_cast<std::size_t>(sqlite3_column_bytes(s, column));
                if (!result.empty() && taken + size > byteBudget) return false;
                taken += size;
                result.push_back(StoredMessage{text(0), text(1), text(2), text(3), text(4), text(5), text(6),
                                               text(7), sqlite3_column_int(s, 8) != 0, text(9)});
                return true;
            });
    }

    std::vector<StoredTrackingRequest> lastTrackingRequests(std::size_t limit) const {
        return newestRows<StoredTrackingRequest>(
            "SELECT method, target, headers, received_at FROM tracking_requests ORDER BY id DESC LIMIT ?", limit,
            [](sqlite3_stmt*, auto& text, std::vector<StoredTrackingRequest>& result) {
                result.push_back({text(0), text(1), text(2), text(3)});
                return true;
            });
    }

    // The road both upload endpoints share: counts the request, reads the body within its
    // limit and the memory budget, draws the injected failure, waits the configured delay,
    // inflates within the raw limit, refuses deep nesting and reads the JSON. Refusals are
    // answered here in the endpoint's shape; `accept` gets the items read while uploads are
    // still decoded one at a time.
    template <class Accept>
    void receiveUpload(const httplib::Request& request, httplib::Response& response,
                       const httplib::ContentReader& read, const UploadRoad& road, Accept accept) {
        {
            std::lock_guard lock(stateMutex);
            ++(statistics.*road.requests);
        }
        HeldBody body(bodyBudget);
        const BodyRead bodyRead = readBody(read, response, configuration.maxBodyBytes, body);
        // Counted where the connection is closed.
        if (bodyRead == BodyRead::pastDeadline) return answerJSON(response, 408, road.refusal(pastDeadlineWhy()));
        if (bodyRead == BodyRead::overBudget) {
            {
                std::lock_guard lock(stateMutex);
                ++statistics.overMemoryBudget;
            }
            response.set_header("Retry-After", kBusyRetryAfterSeconds);
            return answerJSON(response, 503, road.refusal("the gateway holds too many bodies at once; retry later"));
        }
        if (injectFailure()) {
            answerJSON(response, configuration.failStatus, road.refusal("injected failure"));
            return;
        }
        delayIfConfigured();
        auto reject = [&](int status, const std::string& why) {
            {
                std::lock_guard lock(stateMutex);
                ++statistics.rejected;
            }
            answerJSON(response, status, road.refusal(why));
        };
        if (bodyRead == BodyRead::tooLarge)
            return reject(413, "the body is larger than " + std::to_string(configuration.maxBodyBytes) + " bytes");
        if (bodyRead == BodyRead::failed) return reject(400, "the body could not be read");
        // Uploads are decoded one at a time, each in at most about three times its inflated
        // size (the text, the stored texts and the parser's own buffer); they are stored one
        // at a time anyway.
        std::lock_guard decoding(decodeMutex);
        std::size_t rawSize = 0;
        decode(request, body, road, reject, accept, rawSize);
        if (rawSize >= kTrimAfterBytes) malloc_trim(0);
    }

    template <class Reject, class Accept>
    void decode(const httplib::Request& request, HeldBody& body, const UploadRoad& road, Reject& reject,
                Accept& accept, std::size_t& rawSize) {
        ReceivedBody received{.received = body.text().size()};
        const std::string encoding = request.get_header_value(kSetAsideEncoding);
        std::string raw;
        if (!road.plainAllowed || strcasecmp(encoding.c_str(), "gzip") == 0 || startsLikeGzip(body.text())) {
            received.gzip = true;
            const Inflated inflated = gunzip(body.text(), configuration.maxRawBytes, raw);
            rawSize = raw.size();
            switch (inflated) {
            case Inflated::complete:
                break;
            case Inflated::notGzip:
                return reject(400, "the body is not gzip");
            case Inflated::tooLarge:
                return reject(413, "the body inflates to more than " + std::to_string(configuration.maxRawBytes) +
                                       " bytes");
            }
        } else if (!encoding.empty() && strcasecmp(encoding.c_str(), "identity") != 0) {
            return reject(400, "Content-Encoding " + encoding + " is not taken; send gzip or plain JSON");
        } else {
            raw = body.text();
        }
        body.release();
        received.raw = rawSize = raw.size();
        if (jsonTextNestsDeeperThan(raw, kMaximumNesting))
            return reject(400, "the body nests JSON deeper than " + std::to_string(kMaximumNesting) + " levels");
        const UploadItems items = road.read(raw);
        std::string().swap(raw);
        if (items.notJSON) return reject(400, "the body is not JSON");
        if (!items.why.empty()) return reject(400, items.why);
        accept(items, received);
    }

    std::string pastDeadlineWhy() const {
        return "the request did not arrive within " + std::to_string(configuration.requestDeadline.count()) + " ms";
    }

    void handleUpload(const httplib::Request& request, httplib::Response& response,
                      const httplib::ContentReader& read) {
        receiveUpload(request, response, read, kEventsRoad, [&](const UploadItems& elements, const ReceivedBody& received) {
            if (!storeEvents(elements, dumped(headersOf(request)), utcNow()))
                return answerJSON(response, 500, eventsRefusal("storage failed"));
            {
                std::lock_guard lock(stateMutex);
                statistics.events += elements.size();
                statistics.bytesCompressed += received.received;
                statistics.bytesRaw += received.raw;
            }
            tEventsStored = elements.size();
            answerJSON(response, 200, json{{"accepted", elements.size()}});
        });
    }

    void handleBatch(const httplib::Request& request, httplib::Response& response,
                     const httplib::ContentReader& read) {
        receiveUpload(request, response, read, kBatchRoad, [&](const UploadItems& messages, const ReceivedBody& received) {
            // The scheme tells a user's token from the client's own write key; the credential
            // itself is never kept.
            const std::string header = request.get_header_value("Authorization");
            const std::string authorization = header.empty() ? "" : header.substr(0, header.find(' ') + 1) + "present";
            std::size_t duplicates = 0;
            if (!storeMessages(messages, dumped(headersOf(request)), authorization, received.gzip, utcNow(), duplicates))
                return answerJSON(response, 500, batchRefusal("storage failed"));
            {
                std::lock_guard lock(stateMutex);
                statistics.messages += messages.size();
                statistics.duplicateMessages += duplicates;
                statistics.bytesCompressed += received.received;
                statistics.bytesRaw += received.raw;
            }
            tMessagesStored = messages.size();
            tDuplicatesStored = duplicates;
            answerJSON(response, 200, json{{"success", true}});
        });
    }

    void handleTracking(const httplib::Request& request, httplib::Response& response) {
        if (injectFailure()) {
            answerJSON(response, configuration.failStatus, json{{"error", "injected failure"}});
            return;
        }
        delayIfConfigured();
        if (!storeTrackingRequest(request)) {
            answerJSON(response, 500, json{{"error", "storage failed"}});
            return;
        }
        // "/track/impression/123" counts under "/track/impression".
        const auto second = request.path.find('/', std::string("/track/").size());
        const std::string prefix = request.path.substr(0, second);
        {
            std::lock_guard lock(stateMutex);
            ++statistics.trackingRequests;
            ++statistics.trackingByPrefix[prefix];
        }
        response.status = 200;
    }

    // The `limit` of a listing; nullopt, with the 400 answered, when it is not 0 to 1,000.
    std::optional<std::size_t> listingLimit(const httplib::Request& request, httplib::Response& response) const {
        std::size_t limit = kDefaultEventsLimit;
        if (request.has_param("limit")) {
            const std::string text = request.get_param_value("limit");
            const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), limit);
            if (ec != std::errc() || end != text.data() + text.size() || text.empty() || limit > kMaximumEventsLimit) {
                answerJSON(response, 400,
                           json{{"error", "limit must be an integer from 0 to " + std::to_string(kMaximumEventsLimit)}});
                return std::nullopt;
            }
        }
        return limit;
    }

    void handleTrackingListing(const httplib::Request& request, httplib::Response& response) {
        const auto limit = listingLimit(request, response);
        if (!limit) return;
        json listing = json::array();
        for (const auto& r : lastTrackingRequests(*limit)) {
            json headers = json::parse(r.headers, nullptr, false);
            listing.push_back(json{{"method", r.method},
                                   {"target", r.target},
                                   {"headers", headers.is_discarded() ? json(nullptr) : headers},
                                   {"received_at", r.receivedAt}});
        }
        answerJSON(response, 200, listing);
    }

    void logRequest(const httplib::Request& request, int status, std::size_t events) {
        logLine(request.method + " " + request.path + " " + std::to_string(status) + " events=" +
                std::to_string(events));
    }

    void handleStats(const httplib::Request&, httplib::Response& response) {
        const GatewayStatistics s = [this] {
            std::lock_guard lock(stateMutex);
            return statistics;
        }();
        answerJSON(response, 200,
                   json{{"requests", s.requests},
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
                        {"duplicate_messages", s.duplicateMessages}});
    }

    void handleEvents(const httplib::Request& request, httplib::Response& response) {
        const auto limit = listingLimit(request, response);
        if (!limit) return;
        // Payloads go out as stored (JSON written by this gateway) rather than parsed and
        // written again, which would take many times their size in memory.
        std::string body = "[";
        for (const StoredEvent& e : lastEvents(*limit, configuration.maxListingBytes)) {
            json headers = json::parse(e.headers, nullptr, false);
            if (headers.is_discarded()) headers = nullptr;
            // Databases written before credentials were masked may still hold their values.
            if (headers.is_object())
                for (auto& [name, value] : headers.items())
                    if (isCredential(name)) value = "present";
            if (body.size() > 1) body += ',';
            body += R"({"event":)" + dumped(e.event) + R"(,"headers":)" + dumped(headers) +
                    R"(,"payload":)" + (e.payload.empty() ? "null" : e.payload) +
                    R"(,"received_at":)" + dumped(e.receivedAt) + R"(,"version":)" + dumped(e.version) + "}";
        }
        body += "]";
        response.status = 200;
        response.set_content(body, "application/json");
    }

    void handleMessages(const httplib::Request& request, httplib::Response& response) {
        const auto limit = listingLimit(request, response);
        if (!limit) return;
        // As for events: the JSON texts this gateway wrote go out as stored.
        std::string body = "[";
        for (const StoredMessage& m : lastMessages(*limit, configuration.maxListingBytes)) {
            if (body.size() > 1) body += ',';
            body += R"({"authorization":)" + dumped(m.authorization) + R"(,"gzip":)" + (m.gzip ? "true" : "false") +
                    R"(,"headers":)" + m.headers + R"(,"integrations":)" + m.integrations + R"(,"kt":)" + m.kt +
                    R"(,"message":)" + m.message + R"(,"message_id":)" + dumped(m.messageId) + R"(,"name":)" +
                    dumped(m.name) + R"(,"received_at":)" + dumped(m.receivedAt) + R"(,"type":)" + dumped(m.type) +
                    "}";
        }
        body += "]";
        response.status = 200;
        response.set_content(body, "application/json");
    }

    void installRoutes() {
        server.set_pre_routing_handler([](const httplib::Request& request, httplib::Response&) {
            if (request.has_header("Content-Encoding")) {
                // The request object is the server's own, not a constant: only the handler
                // signature is const. Moving the header keeps httplib from inflating the body.
                auto& headers = const_cast<httplib::Request&>(request).headers;
                const std::string value = request.get_header_value("Content-Encoding");
                headers.erase("Content-Encoding");
                headers.emplace(kSetAsideEncoding, value);
            }
            return httplib::Server::HandlerResponse::Unhandled;
        });
        auto logged = [this](void (Impl::*handler)(const httplib::Request&, httplib::Response&)) {
            return [this, handler](const httplib::Request& q, httplib::Response& r) {
                tEventsStored = 0;
                (this->*handler)(q, r);
                logRequest(q, r.status, tEventsStored);
                tLoggedByHandler = true;
            };
        };
        server.Post("/v1/events", [this](const httplib::Request& q, httplib::Response& r,
                                         const httplib::ContentReader& read) {
            tEventsStored = 0;
            handleUpload(q, r, read);
            logRequest(q, r.status, tEventsStored);
            tLoggedByHandler = true;
        });
        server.Post("/v1/batch", [this](const httplib::Request& q, httplib::Response& r,
                                        const httplib::ContentReader& read) {
            tMessagesStored = 0;
            tDuplicatesStored = 0;
            handleBatch(q, r, read);
            logLine(q.method + " " + q.path + " " + std::to_string(r.status) + " messages=" +
                    std::to_string(tMessagesStored) + " duplicates=" + std::to_string(tDuplicatesStored));
            tLoggedByHandler = true;
        });
        server.Get("/stats", logged(&Impl::handleStats));
        server.Get("/messages", logged(&Impl::handleMessages));
        server.Get("/events", logged(&Impl::handleEvents));
        server.Get(R"(/track/.*)", logged(&Impl::handleTracking));
        server.Get("/tracking", logged(&Impl::handleTrackingListing));
        // Left to itself httplib reads a chunked body of any size into memory before finding
        // no route for it; bodies sent elsewhere are read here, within bounds, and dropped.
        auto notFound = [this](const httplib::Request&, httplib::Response& r, const httplib::ContentReader& read) {
            HeldBody nothing(bodyBudget);
            readBody(read, r, 0, nothing);
            r.status = 404;
        };
        server.Post(".*", notFound);
        server.Put(".*", notFound);
        server.Patch(".*", notFound);
        server.Delete(".*", notFound);
        // A request cut off by its deadline before a handler could answer is answered 408 on
        // a closing connection, whatever httplib made of it (a 400 for headers cut short).
        server.set_error_handler(httplib::Server::HandlerWithResponse(
            [this](const httplib::Request& request, httplib::Response& response) {
            if (!requestPastDeadline()) return httplib::Server::HandlerResponse::Unhandled;
            auto& headers = const_cast<httplib::Request&>(request).headers;  // the server's own, as above
            headers.erase("Connection");
            headers.emplace("Connection", "close");
            if (response.status != 408) answerJSON(response, 408, json{{"error", pastDeadlineWhy()}});
            return httplib::Server::HandlerResponse::Handled;
        }));
        server.requestDeadline = configuration.requestDeadline;
        server.pastDeadline = [this](bool answered) {
            {
                std::lock_guard lock(stateMutex);
                ++statistics.pastDeadline;
            }
            if (!answered) logLine("(request cut short) 408 events=0");
        };
        server.set_logger([this](const httplib::Request& request, const httplib::Response& response) {
            if (std::exchange(tLoggedByHandler, false)) return;
            logRequest(request, response.status, 0);
        });
        // httplib's default also sets SO_REUSEPORT, which lets a second gateway share the
        // port silently; a port in use must be an error instead.
        server.set_socket_options([](int socket) {
            int yes = 1;
            setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        });
        // Uploads come seconds apart; idle connections need not hold a worker for long.
        // An answer goes out as headers and body in two writes; with Nagle's algorithm the
        // second waits for the client's delayed ACK (some 40 ms) on every kept-alive request.
        server.set_tcp_nodelay(true);
        server.set_keep_alive_max_count(1000);
        server.set_keep_alive_timeout(kReadTimeoutSeconds);
        server.set_read_timeout(kReadTimeoutSeconds, 0);
        server.set_write_timeout(kWriteTimeoutSeconds, 0);
        server.set_payload_max_length(configuration.maxBodyBytes);
        server.new_task_queue = [] { return new ElasticThreadPool(kMaximumWorkers); };
    }
};

DevelopmentGateway::DevelopmentGateway(Configuration configuration)
    : impl_(std::make_unique<Impl>(std::move(configuration))) {}

DevelopmentGateway::~DevelopmentGateway() { stop(); }

bool DevelopmentGateway::start() {
    Impl& d = *impl_;
    if (d.started) return true;
    if (d.everStarted) {
        d.setError("a stopped gateway does not start again; make a new one");
        return false;
    }
    if (d.db == nullptr && !d.openDatabase()) return false;
    // glibc takes blocks below a threshold from its heaps, one per worker thread, and raises
    // that threshold to the largest block freed; the top of a thread's heap is then kept
    // however much of it is free (malloc_trim does not shrink it), so each worker that once
    // decoded a large upload would keep tens of MiB. A fixed threshold serves the large
    // buffers of decoding from mappings of their own, returned as soon as they are freed.
    static std::once_flag largeBlocksMapped;
    std::call_once(largeBlocksMapped, [] { mallopt(M_MMAP_THRESHOLD, kLargeBlock); });
    d.installRoutes();
    const Configuration& c = d.configuration;
    if (c.port == 0) {
        d.boundPort = d.server.bind_to_any_port(c.host);
        if (d.boundPort < 0) {
            d.setError("cannot bind " + c.host);
            return false;
        }
    } else {
        if (!d.server.bind_to_port(c.host, c.port)) {
            d.setError("cannot bind " + c.host + ":" + std::to_string(c.port));
            return false;
        }
        d.boundPort = c.port;
    }
    // The socket listens from here on; connections wait in the backlog until the loop runs.
    if (!d.server.widenBacklog(kListenBacklog)) d.logLine("note: the listen backlog stays at httplib's 5");
    d.everStarted = true;
    d.thread = std::thread([&d] {
        d.server.listen_after_bind();
        d.loopReturned = true;
    });
    // `stop` is lost on a server that has not entered its loop yet, so wait for that.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!d.server.is_running() && !d.loopReturned && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    d.started = true;
    if (!d.server.is_running()) {
        stop();
        d.setError("the server did not start on " + baseURL());
        return false;
    }
    d.logLine("listening on " + baseURL());
    return true;
}

void DevelopmentGateway::stop() {
    Impl& d = *impl_;
    if (!d.started) return;
    d.server.stop();
    if (d.thread.joinable()) d.thread.join();
    d.started = false;
}

int DevelopmentGateway::port() const { return impl_->boundPort; }

std::string DevelopmentGateway::baseURL() const {
    const std::string& host = impl_->configuration.host;
    const bool ipv6 = host.find(':') != std::string::npos;
    return "http://" + (ipv6 ? "[" + host + "]" : host) + ":" + std::to_string(impl_->boundPort);
}

GatewayStatistics DevelopmentGateway::stats() const {
    std::lock_guard lock(impl_->stateMutex);
    return impl_->statistics;
}

std::vector<StoredEvent> DevelopmentGateway::lastEvents(std::size_t limit) const {
    return impl_->lastEvents(limit, std::numeric_limits<std::size_t>::max());
}

std::vector<StoredMessage> DevelopmentGateway::lastMessages(std::size_t limit) const {
    return impl_->lastMessages(limit, std::numeric_limits<std::size_t>::max());
}

std::vector<StoredTrackingRequest> DevelopmentGateway::lastTrackingRequests(std::size_t limit) const {
    return impl_->lastTrackingRequests(limit);
}

std::string DevelopmentGateway::lastError() const {
    std::lock_guard lock(impl_->stateMutex);
    return impl_->error;
}

}  // namespace kt::gateway
