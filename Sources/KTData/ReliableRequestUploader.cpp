#include "KTData/ReliableRequestUploader.h"

#include <algorithm>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>
#include <sqlite3.h>

#include "KTFoundation/LogMacros.h"
#include "Platform/Backoff.h"
#include "Platform/Fatal.h"
#include "Platform/OwnerOnlyFiles.h"

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

namespace {

using SystemClock = std::chrono::system_clock;

double secondsNow() { return std::chrono::duration<double>(SystemClock::now().time_since_epoch()).count(); }

}  // namespace

struct ReliableRequestUploader::State {
    const Configuration configuration;
    const std::shared_ptr<RequestQueueing> requestQueue;
    const std::shared_ptr<KTLogger> logger;

    mutable std::mutex mutex;
    std::condition_variable wake;
    sqlite3* db = nullptr;            // guarded by mutex
    std::set<std::int64_t> inFlight;  // guarded by mutex: rows handed to the request queue
    Statistics counts;                // guarded by mutex
    bool stopping = false;            // guarded by mutex
    std::minstd_rand jitter{std::random_device{}()};  // guarded by mutex
    std::thread worker;

    State(Configuration c, std::shared_ptr<RequestQueueing> queue, std::shared_ptr<KTLogger> l)
        : configuration(std::move(c)), requestQueue(std::move(queue)), logger(std::move(l)) {}
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
        return exec("CREATE TABLE IF NOT EXISTS requests ("
                    "id INTEGER PRIMARY KEY AUTOINCREMENT, url TEXT NOT NULL, method TEXT NOT NULL, "
                    "headers TEXT NOT NULL, body BLOB NOT NULL, attempts INTEGER NOT NULL, "
                    "created_at REAL NOT NULL, next_attempt_at REAL NOT NULL)");
    }

    // The caller holds the mutex.
    bool step(const char* sql, const std::function<void(sqlite3_stmt*)>& bind) {
        sqlite3_stmt* s = nullptr;
        bool ok = sqlite3_prepare_v2(db, sql, -1, &s, nullptr) == SQLITE_OK;
        if (ok) {
            bind(s);
            ok = sqlite3_step(s) == SQLITE_DONE;
        }
        if (!ok) KT_LOG(logger, 3, kFile, "-[ReliableRequestUploader uploadRequest:]", "SQLite: {}", sqlite3_errmsg(db));
        sqlite3_finalize(s);
        return ok;
    }

    bool insert(const HTTPRequest& request) {
        const std::string headers = encodeHeaders(request);
        const double now = secondsNow();
        return step("INSERT INTO requests (url, method, headers, body, attempts, created_at, next_attempt_at) "
                    "VALUES (?, ?, ?, ?, 0, ?, ?)",
                    [&](sqlite3_stmt* s) {
                        sqlite3_bind_text(s, 1, request.url.data(), static_cast<int>(request.url.size()),
                                          SQLITE_TRANSIENT);
                        sqlite3_bind_text(s, 2, request.method.data(), static_cast<int>(request.method.size()),
                                          SQLITE_TRANSIENT);
                        sqlite3_bind_text(s, 3, headers.data(), static_cast<int>(headers.size()), SQLITE_TRANSIENT);
                        sqlite3_bind_blob(s, 4, request.body.data(), static_cast<int>(request.body.size()),
                                          SQLITE_TRANSIENT);
                        sqlite3_bind_double(s, 5, now);
                        sqlite3_bind_double(s, 6, now);
                    });
    }

    void remove(std::int64_t id) {
        step("DELETE FROM requests WHERE id = ?", [id](sqlite3_stmt* s) { sqlite3_bind_int64(s, 1, id); });
    }

    // The answer to one attempt, on the request queue's thread.
    void answer(std::int64_t id, int attempts, double createdAt, const std::string& url, int code) {
        std::lock_guard lock(mutex);
        inFlight.erase(id);
        if (code == static_cast<int>(RequestResult::delivered)) {
            ++counts.delivered;
            remove(id);
        } else if (code == static_cast<int>(RequestResult::rejected)) {
            ++counts.rejected;
            KT_LOG(logger, 2, kFile, "-[ReliableRequestUploader uploadRequest:]", "{} rejected; not retried", url);
            remove(id);
        } else {
            const double age = secondsNow() - createdAt;
            if (attempts >= configuration.maximumAttempts ||
                age * 1000.0 >= static_cast<double>(configuration.maximumAge.count())) {
                ++counts.givenUp;
                KT_LOG(logger, 2, kFile, "-[ReliableRequestUploader uploadRequest:]",
                       "{} given up after {} attempts over {:.0f} s", url, attempts, age);
                remove(id);
            } else {
                const double next = secondsNow() + std::chrono::duration<double>(jitteredBackoff(configuration.firstRetryDelay, 2,
                                                                               configuration.longestRetryDelay, attempts,
                                                                               jitter))
                                         .count();
                step("UPDATE requests SET attempts = ?, next_attempt_at = ? WHERE id = ?", [&](sqlite3_stmt* s) {
                    sqlite3_bind_int(s, 1, attempts);
                    sqlite3_bind_double(s, 2, next);
                    sqlite3_bind_int64(s, 3, id);
                });
            }
        }
        wake.notify_all();
    }

    struct Due {
        std::int64_t id;
        int attempts;
        double createdAt;
        HTTPRequest request;
    };

    // Rows due now and not in flight, oldest first, marked as in flight; and when the next
    // one falls due. The caller holds the mutex.
    std::vector<Due> takeDue(std::optional<double>& nextDue) {
        std::vector<Due> due;
        const double now = secondsNow();
        sqlite3_stmt* s = nullptr;
        if (sqlite3_prepare_v2(db,
                               "SELECT id, url, method, headers, body, attempts, created_at, next_attempt_at "
                               "FROM requests ORDER BY id",
                               -1, &s, nullptr) != SQLITE_OK)
            return due;
        while (sqlite3_step(s) == SQLITE_ROW) {
            const std::int64_t id = sqlite3_column_int64(s, 0);
            if (inFlight.contains(id)) continue;
            const double at = sqlite3_column_double(s, 7);
            if (at > now) {
                nextDue = nextDue ? std::min(*nextDue, at) : at;
                continue;
            }
            Due d{id, sqlite3_column_int(s, 5), sqlite3_column_double(s, 6), HTTPRequest{}};
            d.request.url = columnText(s, 1);
            d.request.method = columnText(s, 2);
            decodeHeaders(columnText(s, 3), d.request);
            if (const void* body = sqlite3_column_blob(s, 4))
                d.request.body.assign(static_cast<const char*>(body), sqlite3_column_bytes(s, 4));
            inFlight.insert(id);
            due.push_back(std::move(d));
        }
        sqlite3_finalize(s);
        return due;
    }

    void send(const std::shared_ptr<State>& self, Due due) {
        const int attempts = due.attempts + 1;
        if (attempts > 1) {
            std::lock_guard lock(mutex);
            ++counts.retried;
        }
        requestQueue->sendRequest(std::move(due.request),
                                  [weak = std::weak_ptr<State>(self), id = due.id, attempts,
                                   createdAt = due.createdAt, url = due.request.url](int code) {
                                      if (auto state = weak.lock()) state->answer(id, attempts, createdAt, url, code);
                                  });
    }

    // The worker: sends what is due, then sleeps until the next request falls due, a new
    // one arrives, an answer comes, or the uploader stops. Delivery never runs on a caller's
    // thread.
    static void run(const std::shared_ptr<State>& self) {
        std::unique_lock lock(self->mutex);
        while (!self->stopping) {
            if (!self->requestQueue->isNetworkReachable()) {
                self->wake.wait_for(lock, self->configuration.reachabilityPoll);
                continue;
            }
            std::optional<double> nextDue;
            auto due = self->takeDue(nextDue);
            if (!due.empty()) {
                lock.unlock();
                for (auto& d : due) self->send(self, std::move(d));
                lock.lock();
                continue;
            }
            if (nextDue) {
                const auto wait = std::chrono::duration<double>(*nextDue - secondsNow());
                self->wake.wait_for(lock, std::max(wait, std::chrono::duration<double>(0.001)));
            } else {
                self->wake.wait(lock);
            }
        }
    }

    // Makes the rows matching `where` due now and wakes the worker.
    void makeDue(const char* sql) {
        {
            std::lock_guard lock(mutex);
            const double now = secondsNow();
            step(sql, [now](sqlite3_stmt* s) { sqlite3_bind_double(s, 1, now); });
        }
        wake.notify_all();
    }
};

ReliableRequestUploader::ReliableRequestUploader(Configuration configuration,
                                                 std::shared_ptr<RequestQueueing> requestQueue,
                                                 std::shared_ptr<KTLogger> logger) {
    KT_EXPECT_NOT_NIL(requestQueue, "requestQueue");
    KT_PARAMETER_ASSERT(configuration.maximumAttempts > 0);
    const std::string path = configuration.databasePath.empty() ? ":memory:" : configuration.databasePath.string();
    state_ = std::make_shared<State>(std::move(configuration), std::move(requestQueue),
                                     logger ? std::move(logger) : KTLogger::null());
    // Without its file the uploader still delivers and retries within this run.
    if (!state_->openAt(path) && path != ":memory:") state_->openAt(":memory:");
    state_->worker = std::thread([state = state_] { State::run(state); });
}

ReliableRequestUploader::~ReliableRequestUploader() {
    {
        std::lock_guard lock(state_->mutex);
        state_->stopping = true;
    }
    state_->wake.notify_all();
    state_->worker.join();
}

void ReliableRequestUploader::uploadRequest(HTTPRequest request) {
    bool stored = false;
    {
        std::lock_guard lock(state_->mutex);
        ++state_->counts.fired;
        stored = state_->insert(request);
        if (!stored) ++state_->counts.notStored;
    }
    if (!stored) {
        // The disk refused it: one attempt from memory is better than none.
        state_->requestQueue->sendRequest(std::move(request), [](int) {});
        return;
    }
    state_->wake.notify_all();
}

void ReliableRequestUploader::flush() { state_->makeDue("UPDATE requests SET next_attempt_at = ?"); }

void ReliableRequestUploader::uploadFailedRequests() {
    state_->makeDue("UPDATE requests SET next_attempt_at = ? WHERE attempts > 0");
}

std::size_t ReliableRequestUploader::numberOfStoredRequests() const {
    std::lock_guard lock(state_->mutex);
    sqlite3_stmt* s = nullptr;
    std::size_t count = 0;
    if (sqlite3_prepare_v2(state_->db, "SELECT COUNT(*) FROM requests", -1, &s, nullptr) == SQLITE_OK &&
        sqlite3_step(s) == SQLITE_ROW)
        count = static_cast<std::size_t>(sqlite3_column_int64(s, 0));
    sqlite3_finalize(s);
    return count;
}

ReliableRequestUploader::Statistics ReliableRequestUploader::statistics() const {
    const std::size_t stored = numberOfStoredRequests();
    std::lock_guard lock(state_->mutex);
    Statistics s = state_->counts;
    s.waiting = stored;
    s.inFlight = state_->inFlight.size();
    return s;
}

}  // namespace kt
