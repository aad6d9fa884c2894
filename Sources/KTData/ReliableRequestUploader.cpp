#include "KTAnalytics/KTData/ReliableRequestUploader.h"

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

#include <boost/url/parse.hpp>
#include <boost/url/scheme.hpp>
#include <nlohmann/json.hpp>
#include <sqlite3.h>

#include "KTAnalytics/KTFoundation/LogMacros.h"
#include "KTAnalytics/Platform/Backoff.h"
#include "KTAnalytics/Platform/Fatal.h"
#include "KTAnalytics/Platform/OwnerOnlyFiles.h"

namespace kt {

namespace {

constexpr const char* kFile = "Sources/KTData/ReliableRequestUploader";
constexpr const char* kFunction = "-[ReliableRequestUploader uploadRequest:]";
constexpr int kBusyTimeoutMs = 5000;
// How much of a refused URL a log line shows: a 10 MB one must not become a 10 MB line.
constexpr std::size_t kShownURLLength = 200;

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

double secondsNow() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

double seconds(std::chrono::milliseconds d) { return std::chrono::duration<double>(d).count(); }

void lower(std::optional<double>& at, double candidate) { at = at ? std::min(*at, candidate) : candidate; }

std::string shownURL(std::string_view url) {
    std::string shown(url.substr(0, kShownURLLength));
    for (auto& c : shown)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
    if (url.size() > kShownURLLength) shown += fmt::format("... ({} bytes)", url.size());
    return shown;
}

struct URLCheck {
    const char* refusal = nullptr;
    std::string origin;  // to ask the request queue about a pause once per origin
};

URLCheck checkURL(std::string_view url) {
    namespace reason = request_drop_reason;
    if (url.size() > kMaximumRequestURLLength) return {reason::tooLong, {}};
    if (std::any_of(url.begin(), url.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }))
        return {reason::controlCharacter, {}};
    const auto parsed = boost::urls::parse_absolute_uri(url);
    if (!parsed) return {reason::notAURL, {}};
    if (parsed->scheme_id() != boost::urls::scheme::http && parsed->scheme_id() != boost::urls::scheme::https)
        return {reason::notHTTP, {}};
    // "http:/path" parses, but names no host to send it to.
    if (!parsed->has_authority() || parsed->encoded_host().empty()) return {reason::notAURL, {}};
    return {nullptr, requestOrigin(url)};
}

}  // namespace

const char* refusalReasonForURL(std::string_view url) { return checkURL(url).refusal; }

struct ReliableRequestUploader::State {
    struct Entry {
        std::string url;
        std::string origin;
        int attempts = 0;
        double createdAt = 0;
        double nextAttemptAt = 0;  // the table's copy lags behind while a write is owed
        bool inFlight = false;
    };
    struct Due {
        std::int64_t id;
        int attempts;
        HTTPRequest request;
    };

    const Configuration configuration;
    const std::shared_ptr<RequestQueueing> requestQueue;
    const std::shared_ptr<KTLogger> logger;

    mutable std::mutex mutex;
    std::condition_variable wake;
    sqlite3* db = nullptr;                  // guarded by mutex
    // Every unsettled row, oldest first: the uploader's own truth, so that a write the disk
    // refuses can neither make a settled request due again nor skip its back-off.
    std::map<std::int64_t, Entry> waiting;  // guarded by mutex
    std::size_t inFlightRows = 0;           // guarded by mutex
    std::uint64_t inFlightFromMemory = 0;   // guarded by mutex
    // What the table still owes, written in one transaction as soon as the disk takes it.
    std::set<std::int64_t> owedDeletes;              // guarded by mutex: settled rows
    std::set<std::int64_t> owedUpdates;              // guarded by mutex: attempts and next attempt times
    std::map<std::string, std::uint64_t> owedDrops;  // guarded by mutex
    bool storageFailing = false;                     // guarded by mutex
    double storageRetryAt = 0;                       // guarded by mutex
    std::uint64_t changes = 0;                       // guarded by mutex: the worker looks again when it moves
    Statistics counts;                               // guarded by mutex
    bool stopping = false;                           // guarded by mutex
    std::minstd_rand jitter{std::random_device{}()}; // guarded by mutex
    std::thread worker;

    State(Configuration c, std::shared_ptr<RequestQueueing> queue, std::shared_ptr<KTLogger> l)
        : configuration(std::move(c)), requestQueue(std::move(queue)), logger(std::move(l)) {}
    State(const State&) = delete;
    State& operator=(const State&) = delete;
    ~State() { sqlite3_close(db); }

    // SQLite helpers; the caller holds the mutex.
    bool exec(const char* sql) { return sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK; }

    bool run(const char* sql, const std::function<void(sqlite3_stmt*)>& bind) {
        sqlite3_stmt* s = nullptr;
        bool ok = sqlite3_prepare_v2(db, sql, -1, &s, nullptr) == SQLITE_OK;
        if (ok) {
            bind(s);
            ok = sqlite3_step(s) == SQLITE_DONE;
        }
        sqlite3_finalize(s);
        return ok;
    }

    bool deleteRow(std::int64_t id) {
        return run("DELETE FROM requests WHERE id = ?", [id](sqlite3_stmt* s) { sqlite3_bind_int64(s, 1, id); });
    }

    bool addDrops(const std::string& reason, std::uint64_t count) {
        return run("INSERT INTO drops (reason, count) VALUES (?, ?) "
                   "ON CONFLICT(reason) DO UPDATE SET count = count + excluded.count",
                   [&](sqlite3_stmt* s) {
                       sqlite3_bind_text(s, 1, reason.data(), static_cast<int>(reason.size()), SQLITE_TRANSIENT);
                       sqlite3_bind_int64(s, 2, static_cast<sqlite3_int64>(count));
                   });
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
        if (exec("CREATE TABLE IF NOT EXISTS requests ("
                 "id INTEGER PRIMARY KEY AUTOINCREMENT, url TEXT NOT NULL, method TEXT NOT NULL, "
                 "headers TEXT NOT NULL, body BLOB NOT NULL, attempts INTEGER NOT NULL, "
                 "created_at REAL NOT NULL, next_attempt_at REAL NOT NULL, "
                 "follows_redirects INTEGER NOT NULL DEFAULT 0)") &&
            addFollowsRedirectsColumn() &&
            exec("CREATE TABLE IF NOT EXISTS drops (reason TEXT PRIMARY KEY, count INTEGER NOT NULL)"))
            return true;
        KT_LOG(logger, 3, kFile, "-[ReliableRequestUploader init]", "cannot set up {}: {}", path, sqlite3_errmsg(db));
        return false;
    }

    // A table written before requests could follow redirects lacks the column; its rows keep
    // the safe default, never following.
    bool addFollowsRedirectsColumn() {
        sqlite3_stmt* s = nullptr;
        const bool present =
            sqlite3_prepare_v2(db, "SELECT follows_redirects FROM requests LIMIT 0", -1, &s, nullptr) == SQLITE_OK;
        sqlite3_finalize(s);
        return present || exec("ALTER TABLE requests ADD COLUMN follows_redirects INTEGER NOT NULL DEFAULT 0");
    }

    bool owes() const { return !owedDeletes.empty() || !owedUpdates.empty() || !owedDrops.empty(); }

    bool writeOwed() {
        for (const auto id : owedDeletes)
            if (!deleteRow(id)) return false;
        for (const auto id : owedUpdates) {
            const auto it = waiting.find(id);
            if (it != waiting.end() &&
                !run("UPDATE requests SET attempts = ?, next_attempt_at = ? WHERE id = ?", [&](sqlite3_stmt* s) {
                    sqlite3_bind_int(s, 1, it->second.attempts);
                    sqlite3_bind_double(s, 2, it->second.nextAttemptAt);
                    sqlite3_bind_int64(s, 3, id);
                }))
                return false;
        }
        for (const auto& [reason, count] : owedDrops)
            if (!addDrops(reason, count)) return false;
        return true;
    }

    // Runs `body` (which also writes what is owed) as one transaction. A refusal (a full
    // disk) is logged once per run of failures, and what is owed stays in memory.
    bool transaction(const std::function<bool()>& body, double now) {
        if (exec("BEGIN IMMEDIATE") && writeOwed() && body() && exec("COMMIT")) {
            owedDeletes.clear();
            owedUpdates.clear();
            owedDrops.clear();
            if (storageFailing)
                KT_LOG(logger, 1, kFile, kFunction, "the request table takes writes again");
            storageFailing = false;
            return true;
        }
        const std::string error = sqlite3_errmsg(db);
        if (!sqlite3_get_autocommit(db)) exec("ROLLBACK");
        if (!storageFailing)
            KT_LOG(logger, 3, kFile, kFunction, "cannot write the request table ({}); what it owes is kept in memory",
                   error);
        storageFailing = true;
        storageRetryAt = now + seconds(configuration.storageRetryDelay);
        return false;
    }

    // Writes what is owed now, unless the disk refused the last write: then the worker's
    // timer or the next stored request tries.
    void writeOwedSoon(double now) {
        if (owes() && !storageFailing) transaction([] { return true; }, now);
    }

    void drop(const char* reason) {
        ++counts.droppedByReason[reason];
        ++owedDrops[reason];
    }

    // Settles a waiting row for good: delivered (`reason` null) or dropped. It is never due
    // again, whether or not its row can be deleted now.
    void settle(std::map<std::int64_t, Entry>::iterator it, const char* reason) {
        if (it->second.inFlight) --inFlightRows;
        owedUpdates.erase(it->first);
        owedDeletes.insert(it->first);
        waiting.erase(it);
        if (reason != nullptr) drop(reason);
        else ++counts.delivered;
    }

    void refuse(const char* reason, std::string_view url, double now) {
        KT_LOG(logger, 2, kFile, kFunction, "request refused ({}): {}; never sent", reason, shownURL(url));
        drop(reason);
        writeOwedSoon(now);
    }

    // The request and, when the table is full, the eviction of its oldest waiting request, in
    // one transaction with what is owed. False when the disk refused it.
    bool store(const HTTPRequest& request, std::string origin, double now) {
        auto oldest = waiting.end();
        if (waiting.size() >= configuration.maximumWaiting)
            oldest = std::find_if(waiting.begin(), waiting.end(), [](const auto& e) { return !e.second.inFlight; });
        const std::string headers = encodeHeaders(request);
        const bool stored = transaction(
            [&] {
                return (oldest == waiting.end() ||
                        (deleteRow(oldest->first) && addDrops(request_drop_reason::queueFull, 1))) &&
                       run("INSERT INTO requests (url, method, headers, body, attempts, created_at, next_attempt_at, "
                           "follows_redirects) VALUES (?, ?, ?, ?, 0, ?, ?, ?)",
                           [&](sqlite3_stmt* s) {
                               sqlite3_bind_text(s, 1, request.url.data(), static_cast<int>(request.url.size()),
                                                 SQLITE_TRANSIENT);
                               sqlite3_bind_text(s, 2, request.method.data(), static_cast<int>(request.method.size()),
                                                 SQLITE_TRANSIENT);
                               sqlite3_bind_text(s, 3, headers.data(), static_cast<int>(headers.size()),
                                                 SQLITE_TRANSIENT);
                               sqlite3_bind_blob(s, 4, request.body.data(), static_cast<int>(request.body.size()),
                                                 SQLITE_TRANSIENT);
                               sqlite3_bind_double(s, 5, now);
                               sqlite3_bind_double(s, 6, now);
                               sqlite3_bind_int(s, 7, request.followsRedirects ? 1 : 0);
                           });
            },
            now);
        if (!stored) return false;
        if (oldest != waiting.end()) {
            KT_LOG(logger, 2, kFile, kFunction, "{} requests wait; the oldest, {}, gives way", waiting.size(),
                   shownURL(oldest->second.url));
            ++counts.droppedByReason[request_drop_reason::queueFull];
            waiting.erase(oldest);
        }
        waiting.emplace(sqlite3_last_insert_rowid(db), Entry{request.url, std::move(origin), 0, now, now, false});
        return true;
    }

    // What an earlier process left: its rows are waiting again, save those that can never be
    // sent and those past the bound.
    void load() {
        const double now = secondsNow();
        sqlite3_stmt* s = nullptr;
        if (sqlite3_prepare_v2(db, "SELECT id, url, attempts, created_at, next_attempt_at FROM requests ORDER BY id",
                               -1, &s, nullptr) == SQLITE_OK) {
            while (sqlite3_step(s) == SQLITE_ROW) {
                ++counts.restored;
                const std::int64_t id = sqlite3_column_int64(s, 0);
                std::string url = columnText(s, 1);
                auto check = checkURL(url);
                if (check.refusal != nullptr) {
                    owedDeletes.insert(id);
                    KT_LOG(logger, 2, kFile, kFunction, "stored request refused ({}): {}", check.refusal, shownURL(url));
                    drop(check.refusal);
                    continue;
                }
                waiting.emplace(id, Entry{std::move(url), std::move(check.origin), sqlite3_column_int(s, 2),
                                          sqlite3_column_double(s, 3), sqlite3_column_double(s, 4), false});
            }
        }
        sqlite3_finalize(s);
        while (waiting.size() > configuration.maximumWaiting) settle(waiting.begin(), request_drop_reason::queueFull);
        writeOwedSoon(now);
    }

    // The row's request, or nothing: a row gone from the table is dropped, a read that fails
    // is tried again later without spending an attempt.
    std::optional<Due> read(std::map<std::int64_t, Entry>::iterator it, double now) {
        sqlite3_stmt* s = nullptr;
        int rc = sqlite3_prepare_v2(db, "SELECT method, headers, body, follows_redirects FROM requests WHERE id = ?", -1, &s, nullptr);
        std::optional<Due> due;
        if (rc == SQLITE_OK) {
            sqlite3_bind_int64(s, 1, it->first);
            rc = sqlite3_step(s);
        }
        if (rc == SQLITE_ROW) {
            due = Due{it->first, it->second.attempts, HTTPRequest{}};
            due->request.url = it->second.url;
            due->request.method = columnText(s, 0);
            decodeHeaders(columnText(s, 1), due->request);
            if (const void* body = sqlite3_column_blob(s, 2))
                due->request.body.assign(static_cast<const char*>(body), sqlite3_column_bytes(s, 2));
            due->request.followsRedirects = sqlite3_column_int(s, 3) != 0;
        } else if (rc == SQLITE_DONE) {
            KT_LOG(logger, 3, kFile, kFunction, "{} vanished from the request table", shownURL(it->second.url));
            waiting.erase(it);
            drop(request_drop_reason::unreadable);
            writeOwedSoon(now);
        } else {
            KT_LOG(logger, 3, kFile, kFunction, "cannot read the request table: {}", sqlite3_errmsg(db));
            it->second.nextAttemptAt = now + seconds(configuration.firstRetryDelay);
        }
        sqlite3_finalize(s);
        return due;
    }

    // The answer to one attempt of a stored request, on the request queue's thread.
    void answer(std::int64_t id, int attempts, int code) {
        std::lock_guard lock(mutex);
        const double now = secondsNow();
        const auto it = waiting.find(id);
        if (it == waiting.end()) return;
        Entry& entry = it->second;
        entry.inFlight = false;
        --inFlightRows;
        if (attempts > 1 && code != static_cast<int>(RequestResult::notSent)) ++counts.retried;
        if (code == static_cast<int>(RequestResult::delivered)) {
            settle(it, nullptr);
        } else if (code == static_cast<int>(RequestResult::rejected)) {
            KT_LOG(logger, 2, kFile, kFunction, "{} rejected; not retried", shownURL(entry.url));
            settle(it, request_drop_reason::rejected);
        } else if (code == static_cast<int>(RequestResult::notSent)) {
            // No attempt spent; the floor keeps a queue that refuses at once from making a loop.
            entry.nextAttemptAt = std::max(entry.nextAttemptAt, now + seconds(configuration.firstRetryDelay));
        } else {
            const double age = now - entry.createdAt;
            if (attempts >= configuration.maximumAttempts || age >= seconds(configuration.maximumAge)) {
                KT_LOG(logger, 2, kFile, kFunction, "{} given up after {} attempts over {:.0f} s", shownURL(entry.url),
                       attempts, age);
                settle(it, request_drop_reason::givenUp);
            } else {
                entry.attempts = attempts;
                entry.nextAttemptAt = now + seconds(jitteredBackoff(configuration.firstRetryDelay, 2,
                                                                    configuration.longestRetryDelay, attempts, jitter));
                owedUpdates.insert(id);
            }
        }
        writeOwedSoon(now);
        ++changes;
        wake.notify_all();
    }

    // The answer to the one attempt of a request the disk refused.
    void answerFromMemory(const std::string& url, int code) {
        std::lock_guard lock(mutex);
        --inFlightFromMemory;
        if (code == static_cast<int>(RequestResult::delivered)) {
            ++counts.delivered;
        } else {
            const char* reason = code == static_cast<int>(RequestResult::rejected) ? request_drop_reason::rejected
                                                                                    : request_drop_reason::notStored;
            KT_LOG(logger, 2, kFile, kFunction, "{} could not be stored and its one attempt failed ({})", shownURL(url),
                   reason);
            drop(reason);
            writeOwedSoon(secondsNow());
        }
        ++changes;
        wake.notify_all();
    }

    void send(const std::shared_ptr<State>& self, Due due) {
        requestQueue->sendRequest(std::move(due.request),
                                  [weak = std::weak_ptr<State>(self), id = due.id, attempts = due.attempts + 1](int code) {
                                      if (auto state = weak.lock()) state->answer(id, attempts, code);
                                  });
    }

    // The worker: sends what is due to origins the request queue does not hold back, then
    // sleeps until the next request falls due, a pause passes, owed writes are to be tried
    // again, something changes, or the uploader stops. Delivery never runs on a caller's
    // thread. The request queue is asked without the lock, as it may answer meanwhile.
    static void run(const std::shared_ptr<State>& self) {
        std::unique_lock lock(self->mutex);
        while (!self->stopping) {
            const std::uint64_t seen = self->changes;
            lock.unlock();
            const bool reachable = self->requestQueue->isNetworkReachable();
            lock.lock();
            double now = secondsNow();
            std::optional<double> wakeAt;
            if (self->owes() && self->storageFailing) {
                if (now >= self->storageRetryAt) self->transaction([] { return true; }, now);
                if (self->owes()) lower(wakeAt, self->storageRetryAt);
            }
            std::vector<std::int64_t> due;
            std::map<std::string, std::string> origins;  // origin → one of its URLs
            if (!reachable) lower(wakeAt, now + seconds(self->configuration.reachabilityPoll));
            for (const auto& [id, entry] : self->waiting) {
                if (!reachable) break;
                if (entry.inFlight) continue;
                if (entry.nextAttemptAt > now) {
                    lower(wakeAt, entry.nextAttemptAt);
                    continue;
                }
                due.push_back(id);
                origins.emplace(entry.origin, entry.url);
            }
            std::vector<Due> sending;
            if (!due.empty()) {
                lock.unlock();
                std::map<std::string, double> pausedUntil;
                for (const auto& [origin, url] : origins)
                    if (const auto pause = self->requestQueue->pauseRemaining(url); pause.count() > 0)
                        pausedUntil[origin] = secondsNow() + seconds(pause);
                lock.lock();
                now = secondsNow();
                for (const auto id : due) {
                    const auto it = self->waiting.find(id);
                    if (it == self->waiting.end() || it->second.inFlight) continue;  // settled or taken meanwhile
                    if (const auto paused = pausedUntil.find(it->second.origin); paused != pausedUntil.end()) {
                        lower(wakeAt, paused->second);
                        continue;
                    }
                    auto request = self->read(it, now);
                    if (!request) {
                        if (const auto still = self->waiting.find(id); still != self->waiting.end())
                            lower(wakeAt, still->second.nextAttemptAt);
                        continue;
                    }
                    it->second.inFlight = true;
                    ++self->inFlightRows;
                    sending.push_back(std::move(*request));
                }
            }
            if (self->stopping) break;
            if (!sending.empty()) {
                lock.unlock();
                for (auto& d : sending) self->send(self, std::move(d));
                lock.lock();
                continue;
            }
            const auto woken = [&] { return self->stopping || self->changes != seen; };
            if (wakeAt)
                self->wake.wait_for(lock, std::max(std::chrono::duration<double>(*wakeAt - secondsNow()),
                                                   std::chrono::duration<double>(0.001)),
                                    woken);
            else
                self->wake.wait(lock, woken);
        }
    }

    // Makes the waiting requests that `select` picks due now and wakes the worker.
    void makeDue(const std::function<bool(const Entry&)>& select) {
        {
            std::lock_guard lock(mutex);
            const double now = secondsNow();
            for (auto& [id, entry] : waiting)
                if (!entry.inFlight && select(entry)) entry.nextAttemptAt = std::min(entry.nextAttemptAt, now);
            ++changes;
        }
        wake.notify_all();
    }
};

ReliableRequestUploader::ReliableRequestUploader(Configuration configuration,
                                                 std::shared_ptr<RequestQueueing> requestQueue,
                                                 std::shared_ptr<KTLogger> logger) {
    KT_EXPECT_NOT_NIL(requestQueue, "requestQueue");
    KT_PARAMETER_ASSERT(configuration.maximumAttempts > 0);
    KT_PARAMETER_ASSERT(configuration.maximumWaiting > 0);
    const std::string path = configuration.databasePath.empty() ? ":memory:" : configuration.databasePath.string();
    state_ = std::make_shared<State>(std::move(configuration), std::move(requestQueue),
                                     logger ? std::move(logger) : KTLogger::null());
    {
        std::lock_guard lock(state_->mutex);
        // Without its file the uploader still delivers and retries within this run.
        if (!state_->openAt(path) && path != ":memory:") state_->openAt(":memory:");
        state_->load();
    }
    state_->worker = std::thread([state = state_] { State::run(state); });
}

ReliableRequestUploader::~ReliableRequestUploader() {
    {
        std::lock_guard lock(state_->mutex);
        state_->stopping = true;
    }
    state_->wake.notify_all();
    state_->worker.join();
    std::lock_guard lock(state_->mutex);
    // One last try at what the table owes; what it cannot take is sent again by the next start.
    if (state_->owes()) state_->transaction([] { return true; }, secondsNow());
}

void ReliableRequestUploader::uploadRequest(HTTPRequest request) {
    auto check = checkURL(request.url);
    {
        std::lock_guard lock(state_->mutex);
        ++state_->counts.fired;
        const double now = secondsNow();
        if (check.refusal != nullptr) {
            state_->refuse(check.refusal, request.url, now);
            return;
        }
        if (state_->store(request, std::move(check.origin), now)) {
            ++state_->changes;
            state_->wake.notify_all();
            return;
        }
        ++state_->counts.notStored;
        ++state_->inFlightFromMemory;
    }
    // The disk refused it: one attempt from memory is better than none, and it is counted.
    auto answer = [weak = std::weak_ptr<State>(state_), url = request.url](int code) {
        if (auto state = weak.lock()) state->answerFromMemory(url, code);
    };
    state_->requestQueue->sendRequest(std::move(request), std::move(answer));
}

void ReliableRequestUploader::refuseRequest(const char* reason) {
    std::lock_guard lock(state_->mutex);
    ++state_->counts.fired;
    state_->refuse(reason != nullptr ? reason : request_drop_reason::notText, "(no URL text)", secondsNow());
}

void ReliableRequestUploader::flush() {
    state_->makeDue([](const State::Entry&) { return true; });
}

void ReliableRequestUploader::uploadFailedRequests() {
    state_->makeDue([](const State::Entry& entry) { return entry.attempts > 0; });
}

std::size_t ReliableRequestUploader::numberOfStoredRequests() const {
    std::lock_guard lock(state_->mutex);
    return state_->waiting.size();
}

ReliableRequestUploader::Statistics ReliableRequestUploader::statistics() const {
    std::lock_guard lock(state_->mutex);
    Statistics s = state_->counts;
    s.waiting = state_->waiting.size() + state_->inFlightFromMemory;
    s.inFlight = state_->inFlightRows + state_->inFlightFromMemory;
    const auto count = [&s](const char* reason) {
        const auto it = s.droppedByReason.find(reason);
        return it == s.droppedByReason.end() ? std::uint64_t{0} : it->second;
    };
    s.rejected = count(request_drop_reason::rejected);
    s.givenUp = count(request_drop_reason::givenUp);
    return s;
}

namespace {

// Reads a request database from outside its uploader: `row` for each row of `sql`; nothing
// when there is no such file or table. Read-write when it may be, never creating: a journal
// a killed writer left must be rolled back to read.
template <class Row>
void readRequests(const std::filesystem::path& databasePath, const char* sql, Row row) {
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(databasePath.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
        sqlite3_close(db);
        db = nullptr;
        if (sqlite3_open_v2(databasePath.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
            sqlite3_close(db);
            return;
        }
    }
    sqlite3_busy_timeout(db, kBusyTimeoutMs);
    sqlite3_stmt* s = nullptr;
    if (sqlite3_prepare_v2(db, sql, -1, &s, nullptr) == SQLITE_OK)
        while (sqlite3_step(s) == SQLITE_ROW) row(s);
    sqlite3_finalize(s);
    sqlite3_close(db);
}

}  // namespace

std::map<std::string, std::uint64_t> ReliableRequestUploader::recordedDrops(const std::filesystem::path& databasePath) {
    std::map<std::string, std::uint64_t> drops;
    readRequests(databasePath, "SELECT reason, count FROM drops", [&](sqlite3_stmt* s) {
        drops[columnText(s, 0)] += static_cast<std::uint64_t>(std::max<sqlite3_int64>(0, sqlite3_column_int64(s, 1)));
    });
    return drops;
}

std::vector<std::string> ReliableRequestUploader::storedURLs(const std::filesystem::path& databasePath) {
    std::vector<std::string> urls;
    readRequests(databasePath, "SELECT url FROM requests ORDER BY id",
                 [&](sqlite3_stmt* s) { urls.push_back(columnText(s, 0)); });
    return urls;
}

}  // namespace kt
