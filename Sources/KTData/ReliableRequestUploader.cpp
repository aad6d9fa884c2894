#include "KTData/ReliableRequestUploader.h"

#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>
#include <sqlite3.h>

#include "Platform/OwnerOnlyFiles.h"

#include "KTFoundation/LogMacros.h"
#include "Platform/Fatal.h"

namespace kt {

namespace {

constexpr const char* kFile = "Sources/KTData/ReliableRequestUploader";
constexpr int kBusyTimeoutMs = 5000;

std::string encodeHeaders(const HTTPRequest& request) {
    nlohmann::json headers = nlohmann::json::array();
    for (const auto& [name, value] : request.headers) headers.push_back({name, value});
    // Header values are bytes; a stray invalid byte must not cost the request.
    return headers.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

void decodeHeaders(const std::string& text, HTTPRequest& request) {
    nlohmann::json headers = nlohmann::json::parse(text, nullptr, false);
    if (!headers.is_array()) return;
    for (const auto& pair : headers)
        if (pair.is_array() && pair.size() == 2 && pair[0].is_string() && pair[1].is_string())
            request.headers.emplace_back(pair[0].get<std::string>(), pair[1].get<std::string>());
}

std::string columnText(sqlite3_stmt* s, int column) {
    const auto* text = sqlite3_column_text(s, column);
    return text != nullptr ? std::string(reinterpret_cast<const char*>(text), sqlite3_column_bytes(s, column))
                           : std::string();
}

}  // namespace

struct ReliableRequestUploader::State {
    const int maximumAttempts;
    const std::shared_ptr<KTLogger> logger;

    mutable std::mutex mutex;
    sqlite3* db = nullptr;            // guarded by mutex
    std::set<std::int64_t> inFlight;  // guarded by mutex: stored rows handed to the queue
    Statistics statistics;            // guarded by mutex

    State(int attempts, std::shared_ptr<KTLogger> l) : maximumAttempts(attempts), logger(std::move(l)) {}
    State(const State&) = delete;
    State& operator=(const State&) = delete;
    ~State() { sqlite3_close(db); }

    bool exec(const char* sql) {
        char* message = nullptr;
        if (sqlite3_exec(db, sql, nullptr, nullptr, &message) == SQLITE_OK) return true;
        KT_LOG(logger, 3, kFile, "-[ReliableRequestUploader init]", "SQLite: {}",
               message != nullptr ? message : sqlite3_errmsg(db));
        sqlite3_free(message);
        return false;
    }

    bool openAt(const std::string& path) {
        sqlite3_close(db);
        db = nullptr;
        // Queued requests keep their headers (a bearer token among them): owner-only.
        if (path != ":memory:") ensureOwnerOnlyFile(path);
        if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                            nullptr) != SQLITE_OK) {
            KT_LOG(logger, 3, kFile, "-[ReliableRequestUploader init]", "cannot open {}: {}", path,
                   db != nullptr ? sqlite3_errmsg(db) : "out of memory");
            return false;
        }
        sqlite3_busy_timeout(db, kBusyTimeoutMs);
        return exec("CREATE TABLE IF NOT EXISTS failed_requests ("
                    "id INTEGER PRIMARY KEY AUTOINCREMENT, url TEXT NOT NULL, method TEXT NOT NULL, "
                    "headers TEXT NOT NULL, body BLOB NOT NULL, attempts INTEGER NOT NULL)");
    }

    void store(const HTTPRequest& request, int attempts) {
        std::lock_guard lock(mutex);
        sqlite3_stmt* s = nullptr;
        if (sqlite3_prepare_v2(db, "INSERT INTO failed_requests (url, method, headers, body, attempts) "
                                   "VALUES (?, ?, ?, ?, ?)", -1, &s, nullptr) != SQLITE_OK) {
            KT_LOG(logger, 3, kFile, "-[ReliableRequestUploader uploadRequest:]", "cannot store {}: {}", request.url,
                   sqlite3_errmsg(db));
            return;
        }
        const std::string headers = encodeHeaders(request);
        sqlite3_bind_text(s, 1, request.url.data(), static_cast<int>(request.url.size()), SQLITE_TRANSIENT);
        sqlite3_bind_text(s, 2, request.method.data(), static_cast<int>(request.method.size()), SQLITE_TRANSIENT);
        sqlite3_bind_text(s, 3, headers.data(), static_cast<int>(headers.size()), SQLITE_TRANSIENT);
        sqlite3_bind_blob(s, 4, request.body.data(), static_cast<int>(request.body.size()), SQLITE_TRANSIENT);
        sqlite3_bind_int(s, 5, attempts);
        if (sqlite3_step(s) != SQLITE_DONE)
            KT_LOG(logger, 3, kFile, "-[ReliableRequestUploader uploadRequest:]", "cannot store {}: {}", request.url,
                   sqlite3_errmsg(db));
        sqlite3_finalize(s);
    }

    // Runs `sql` with one integer parameter bound to `id`; the caller holds the mutex.
    void execForId(const char* sql, std::int64_t id) {
        sqlite3_stmt* s = nullptr;
        if (sqlite3_prepare_v2(db, sql, -1, &s, nullptr) == SQLITE_OK) {
            sqlite3_bind_int64(s, 1, id);
            if (sqlite3_step(s) == SQLITE_DONE) {
                sqlite3_finalize(s);
                return;
            }
        }
        KT_LOG(logger, 3, kFile, "-[ReliableRequestUploader uploadFailedRequests]", "SQLite: {}", sqlite3_errmsg(db));
        sqlite3_finalize(s);
    }

    // The answer to the first attempt of a request that is not stored yet.
    void firstAnswer(const HTTPRequest& request, int code) {
        if (code == static_cast<int>(RequestResult::delivered)) {
            std::lock_guard lock(mutex);
            ++statistics.delivered;
        } else if (code == static_cast<int>(RequestResult::rejected)) {
            KT_LOG(logger, 2, kFile, "-[ReliableRequestUploader uploadRequest:]", "{} rejected", request.url);
            std::lock_guard lock(mutex);
            ++statistics.rejected;
        } else if (maximumAttempts <= 1) {
            dropOne(request.url);
        } else {
            store(request, 1);
        }
    }

    void dropOne(const std::string& url) {
        KT_LOG(logger, 2, kFile, "-[ReliableRequestUploader uploadFailedRequests]",
               "{} dropped after {} failed attempts", url, maximumAttempts);
        std::lock_guard lock(mutex);
        ++statistics.dropped;
    }

    // The answer to a stored request sent again.
    void storedAnswer(std::int64_t id, int attempts, const std::string& url, int code) {
        bool dropped = false;
        {
            std::lock_guard lock(mutex);
            inFlight.erase(id);
            if (code == static_cast<int>(RequestResult::delivered)) {
                ++statistics.delivered;
                execForId("DELETE FROM failed_requests WHERE id = ?", id);
            } else if (code == static_cast<int>(RequestResult::rejected)) {
                ++statistics.rejected;
                execForId("DELETE FROM failed_requests WHERE id = ?", id);
            } else if (attempts + 1 >= maximumAttempts) {
                execForId("DELETE FROM failed_requests WHERE id = ?", id);
                dropped = true;
            } else {
                execForId("UPDATE failed_requests SET attempts = attempts + 1 WHERE id = ?", id);
            }
        }
        if (dropped) dropOne(url);
    }

    struct Stored {
        std::int64_t id;
        int attempts;
        HTTPRequest request;
    };

    // Stored requests not in flight, oldest first, marked as in flight.
    std::vector<Stored> takeStored() {
        std::vector<Stored> result;
        std::lock_guard lock(mutex);
        sqlite3_stmt* s = nullptr;
        if (sqlite3_prepare_v2(db, "SELECT id, url, method, headers, body, attempts FROM failed_requests ORDER BY id",
                               -1, &s, nullptr) != SQLITE_OK) {
            KT_LOG(logger, 3, kFile, "-[ReliableRequestUploader uploadFailedRequests]", "SQLite: {}",
                   sqlite3_errmsg(db));
            return result;
        }
        while (sqlite3_step(s) == SQLITE_ROW) {
            const std::int64_t id = sqlite3_column_int64(s, 0);
            if (inFlight.contains(id)) continue;
            Stored stored{id, sqlite3_column_int(s, 5), HTTPRequest{}};
            stored.request.url = columnText(s, 1);
            stored.request.method = columnText(s, 2);
            decodeHeaders(columnText(s, 3), stored.request);
            const void* body = sqlite3_column_blob(s, 4);
            if (body != nullptr)
                stored.request.body.assign(static_cast<const char*>(body), sqlite3_column_bytes(s, 4));
            inFlight.insert(id);
            result.push_back(std::move(stored));
        }
        sqlite3_finalize(s);
        statistics.retried += result.size();
        return result;
    }
};

ReliableRequestUploader::ReliableRequestUploader(Configuration configuration,
                                                 std::shared_ptr<RequestQueueing> requestQueue,
                                                 std::shared_ptr<KTLogger> logger)
    : requestQueue_(std::move(requestQueue)),
      state_(std::make_shared<State>(configuration.maximumAttempts, logger ? std::move(logger) : KTLogger::null())) {
    KT_EXPECT_NOT_NIL(requestQueue_, "requestQueue");
    KT_PARAMETER_ASSERT(configuration.maximumAttempts > 0);
    const std::string path = configuration.databasePath.empty() ? ":memory:" : configuration.databasePath.string();
    // Without its file the uploader still retries within this run.
    if (!state_->openAt(path) && path != ":memory:") state_->openAt(":memory:");
}

ReliableRequestUploader::~ReliableRequestUploader() = default;

void ReliableRequestUploader::uploadRequest(HTTPRequest request) {
    if (!requestQueue_->isNetworkReachable()) {
        state_->store(request, 0);
        return;
    }
    auto copy = std::make_shared<HTTPRequest>(request);
    requestQueue_->sendRequest(std::move(request), [state = state_, copy](int code) { state->firstAnswer(*copy, code); });
}

void ReliableRequestUploader::uploadFailedRequests() {
    if (!requestQueue_->isNetworkReachable()) return;
    for (auto& stored : state_->takeStored()) {
        auto callback = [state = state_, id = stored.id, attempts = stored.attempts,
                         url = stored.request.url](int code) { state->storedAnswer(id, attempts, url, code); };
        requestQueue_->sendRequest(std::move(stored.request), std::move(callback));
    }
}

void ReliableRequestUploader::flush() { uploadFailedRequests(); }

std::size_t ReliableRequestUploader::numberOfStoredRequests() const {
    std::lock_guard lock(state_->mutex);
    sqlite3_stmt* s = nullptr;
    std::size_t count = 0;
    if (sqlite3_prepare_v2(state_->db, "SELECT COUNT(*) FROM failed_requests", -1, &s, nullptr) == SQLITE_OK &&
        sqlite3_step(s) == SQLITE_ROW)
        count = static_cast<std::size_t>(sqlite3_column_int64(s, 0));
    sqlite3_finalize(s);
    return count;
}

ReliableRequestUploader::Statistics ReliableRequestUploader::statistics() const {
    std::lock_guard lock(state_->mutex);
    return state_->statistics;
}

}  // namespace kt
