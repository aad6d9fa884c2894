#include "KTAnalytics/Platform/UserDefaults.h"

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <mutex>
#include <unordered_map>
#include <system_error>

#include <pwd.h>
#include <sqlite3.h>
#include <unistd.h>

#include "KTAnalytics/Platform/Fatal.h"
#include "KTAnalytics/Platform/OwnerOnlyFiles.h"

namespace kt {

namespace {

constexpr int kBusyTimeoutMs = 5000;
// Under load another connection can hold the file past one busy wait (SQLite's waits back
// off to 100 ms while the holder keeps retaking the lock): a change is tried again until
// this much time has passed, rather than lost.
constexpr auto kWriteDeadline = std::chrono::seconds(60);

// Asking SQLite whether another connection changed the file takes a read transaction: a
// lock and an unlock on the file, a look for a journal beside it and a read of its header,
// about ten system calls. Reads ask at most this often, unless a connection of this
// process has written since: another process's change is seen within this time, this
// process's at once.
constexpr auto kForeignChangeLatency = std::chrono::milliseconds(100);

// Changes committed by any connection of this process, counted after each commit.
std::atomic<std::uint64_t>& changesInThisProcess() {
    static std::atomic<std::uint64_t> changes{0};
    return changes;
}

void noteChangeCommitted() { changesInThisProcess().fetch_add(1, std::memory_order_release); }

// Repeats `attempt` (an SQLite call answering its result code) while the file stays busy.
template <class Attempt>
int whileBusy(Attempt attempt) {
    const auto deadline = std::chrono::steady_clock::now() + kWriteDeadline;
    int rc = attempt();
    while ((rc == SQLITE_BUSY || rc == SQLITE_LOCKED) && std::chrono::steady_clock::now() < deadline) rc = attempt();
    return rc;
}

int stepChange(sqlite3_stmt* s) {
    return whileBusy([s] {
        const int rc = sqlite3_step(s);
        if (rc == SQLITE_BUSY || rc == SQLITE_LOCKED) sqlite3_reset(s);  // keeps the bindings
        return rc;
    });
}

// Resets a prepared statement when a use of it ends, however it ends.
class StatementUse {
public:
    explicit StatementUse(sqlite3_stmt* s) : s_(s) {}
    ~StatementUse() {
        sqlite3_reset(s_);
        sqlite3_clear_bindings(s_);
    }
    StatementUse(const StatementUse&) = delete;
    StatementUse& operator=(const StatementUse&) = delete;

private:
    sqlite3_stmt* s_;
};

std::optional<AttributeValue> decodeStored(const void* blob, int size) {
    if (blob == nullptr || size <= 0) return std::nullopt;
    const auto* bytes = static_cast<const std::uint8_t*>(blob);
    // Tags are stored so that dates and data keep their binary subtype.
    AttributeValue v = AttributeValue::from_cbor(bytes, bytes + size, true, false,
                                                 AttributeValue::cbor_tag_handler_t::store);
    if (v.is_discarded()) return std::nullopt;
    return v;
}

}  // namespace

struct UserDefaults::Impl {
    mutable std::mutex mutex;
    sqlite3* db = nullptr;
    sqlite3_stmt* select = nullptr;
    sqlite3_stmt* upsert = nullptr;
    sqlite3_stmt* remove = nullptr;
    sqlite3_stmt* listKeys = nullptr;
    sqlite3_stmt* dataVersion = nullptr;
    // Reads are served from memory: the session id alone is read for every event, and a
    // SELECT plus decoding costs several microseconds. Another connection's commit bumps
    // SQLite's data_version, which drops the cache, so two objects over one file still
    // see each other's writes (see kForeignChangeLatency for how soon).
    mutable std::unordered_map<std::string, std::optional<AttributeValue>> cache;
    mutable long long cachedVersion = -1;
    mutable std::uint64_t checkedAtChange = 0;
    mutable std::chrono::steady_clock::time_point checkedAt;

    Impl() = default;
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    ~Impl() {
        // Statements must go before the connection they belong to.
        for (sqlite3_stmt* s : {select, upsert, remove, listKeys, dataVersion}) sqlite3_finalize(s);
        sqlite3_close(db);
    }

    bool exec(const char* sql, std::string* error) {
        char* message = nullptr;
        if (sqlite3_exec(db, sql, nullptr, nullptr, &message) == SQLITE_OK) return true;
        if (error != nullptr) *error = message != nullptr ? message : sqlite3_errmsg(db);
        sqlite3_free(message);
        return false;
    }

    // A statement that takes the file's lock, tried again while another connection holds it.
    bool execChange(const char* sql) {
        return whileBusy([&] { return sqlite3_exec(db, sql, nullptr, nullptr, nullptr); }) == SQLITE_OK;
    }

    bool prepare(sqlite3_stmt*& s, const char* sql, std::string* error) {
        if (sqlite3_prepare_v3(db, sql, -1, SQLITE_PREPARE_PERSISTENT, &s, nullptr) == SQLITE_OK) return true;
        if (error != nullptr) *error = sqlite3_errmsg(db);
        return false;
    }

    static std::unique_ptr<Impl> open(const std::filesystem::path& path, std::string* error) {
        // A failure here shows up, with a better message, when SQLite opens the file.
        if (path != ":memory:") {
            if (path.has_parent_path()) createOwnerOnlyDirectories(path.parent_path());
            ensureOwnerOnlyFile(path);
        }

        auto impl = std::make_unique<Impl>();
        const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
        if (sqlite3_open_v2(path.c_str(), &impl->db, flags, nullptr) != SQLITE_OK) {
            if (error != nullptr)
                *error = "cannot open " + path.string() + ": " +
                         (impl->db != nullptr ? sqlite3_errmsg(impl->db) : "out of memory");
            return nullptr;
        }
        sqlite3_busy_timeout(impl->db, kBusyTimeoutMs);
        // A rollback journal, not WAL: WAL maps a shared-memory file, and on a full disk a
        // write to that mapping kills the process with SIGBUS instead of failing. Writes
        // are rare here, so WAL's concurrency buys little. FULL makes every committed write
        // survive a power loss, which is what callers of `set` rely on.
        std::string problem;
        if (!impl->exec("PRAGMA journal_mode=DELETE;", &problem) || !impl->exec("PRAGMA synchronous=FULL;", &problem) ||
            !impl->exec("CREATE TABLE IF NOT EXISTS defaults (key TEXT PRIMARY KEY NOT NULL, value BLOB NOT NULL);",
                        &problem) ||
            !impl->prepare(impl->select, "SELECT value FROM defaults WHERE key = ?1;", &problem) ||
            !impl->prepare(impl->upsert,
                           "INSERT INTO defaults (key, value) VALUES (?1, ?2) "
                           "ON CONFLICT(key) DO UPDATE SET value = excluded.value;",
                           &problem) ||
            !impl->prepare(impl->remove, "DELETE FROM defaults WHERE key = ?1;", &problem) ||
            !impl->prepare(impl->listKeys, "SELECT key FROM defaults ORDER BY key;", &problem) ||
            !impl->prepare(impl->dataVersion, "PRAGMA data_version;", &problem)) {
            if (error != nullptr) *error = "cannot open " + path.string() + ": " + problem;
            return nullptr;
        }
        return impl;
    }

    // The callers below hold `mutex`.
    void validateCache() const {
        const auto changes = changesInThisProcess().load(std::memory_order_acquire);
        const auto now = std::chrono::steady_clock::now();
        if (cachedVersion >= 0 && changes == checkedAtChange && now - checkedAt < kForeignChangeLatency) return;
        checkedAtChange = changes;
        checkedAt = now;
        long long version = -1;
        {
            StatementUse use(dataVersion);
            if (sqlite3_step(dataVersion) == SQLITE_ROW) version = sqlite3_column_int64(dataVersion, 0);
        }
        if (version != cachedVersion || version < 0) {
            cache.clear();
            cachedVersion = version;
        }
    }

    std::optional<AttributeValue> read(const std::string& key) const {
        validateCache();
        if (auto it = cache.find(key); it != cache.end()) return it->second;
        auto value = readStored(key);
        cache.emplace(key, value);
        return value;
    }

    std::optional<AttributeValue> readStored(const std::string& key) const {
        sqlite3_stmt* s = select;
        StatementUse use(s);
        sqlite3_bind_text(s, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
        if (sqlite3_step(s) != SQLITE_ROW) return std::nullopt;
        return decodeStored(sqlite3_column_blob(s, 0), sqlite3_column_bytes(s, 0));
    }

    void write(const std::string& key, const Bytes& encoded) {
        sqlite3_stmt* s = upsert;
        StatementUse use(s);
        sqlite3_bind_text(s, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
        sqlite3_bind_blob(s, 2, encoded.data(), static_cast<int>(encoded.size()), SQLITE_STATIC);
        // Only a write that reached the database may be remembered as its value.
        if (stepChange(s) == SQLITE_DONE)
            cache.erase(key);
        else
            cache.clear();
    }

    void erase(const std::string& key) {
        sqlite3_stmt* s = remove;
        StatementUse use(s);
        sqlite3_bind_text(s, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
        stepChange(s);
        cache.erase(key);
    }

    std::vector<std::string> keysWithPrefix(const std::string& prefix) const {
        std::vector<std::string> result;
        sqlite3_stmt* s = listKeys;
        StatementUse use(s);
        while (sqlite3_step(s) == SQLITE_ROW) {
            const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(s, 0));
            std::string key(text != nullptr ? text : "", static_cast<std::size_t>(sqlite3_column_bytes(s, 0)));
            if (key.starts_with(prefix)) result.push_back(std::move(key));
        }
        return result;
    }
};

UserDefaults::UserDefaults(const std::filesystem::path& path) {
    std::string error;
    impl_ = Impl::open(path, &error);
    if (!impl_) fatalError("Cannot open user defaults: " + error);
}

UserDefaults::UserDefaults(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

UserDefaults::~UserDefaults() = default;

std::shared_ptr<UserDefaults> UserDefaults::open(const std::filesystem::path& path, std::string* error) {
    auto impl = Impl::open(path, error);
    if (!impl) return nullptr;
    return std::shared_ptr<UserDefaults>(new UserDefaults(std::move(impl)));
}

std::filesystem::path UserDefaults::standardPath(const std::string& applicationId) {
    std::filesystem::path base;
    // Relative values are to be ignored, as the base-directory convention says.
    if (const char* config = std::getenv("XDG_CONFIG_HOME"); config != nullptr && config[0] == '/') {
        base = config;
    } else {
        const char* home = std::getenv("HOME");
        if (home == nullptr || home[0] == '\0') {
            if (const passwd* entry = getpwuid(getuid()); entry != nullptr) home = entry->pw_dir;
        }
        base = std::filesystem::path(home != nullptr ? home : "/tmp") / ".config";
    }
    return base / applicationId / "defaults.sqlite3";
}

std::optional<AttributeValue> UserDefaults::object(const std::string& key) const {
    std::lock_guard lock(impl_->mutex);
    return impl_->read(key);
}

void UserDefaults::set(const AttributeValue& value, const std::string& key) {
    if (value.is_null() || value.is_discarded()) {
        removeObject(key);
        return;
    }
    const Bytes encoded = AttributeValue::to_cbor(value);
    std::lock_guard lock(impl_->mutex);
    impl_->write(key, encoded);
    noteChangeCommitted();
}

void UserDefaults::removeObject(const std::string& key) {
    std::lock_guard lock(impl_->mutex);
    impl_->erase(key);
    noteChangeCommitted();
}

std::optional<std::string> UserDefaults::string(const std::string& key) const {
    auto v = object(key);
    if (!v || !v->is_string()) return std::nullopt;
    return v->get<std::string>();
}

std::optional<double> UserDefaults::number(const std::string& key) const {
    auto v = object(key);
    if (!v) return std::nullopt;
    if (v->is_boolean()) return v->get<bool>() ? 1.0 : 0.0;
    if (!v->is_number()) return std::nullopt;
    return v->get<double>();
}

long long UserDefaults::integer(const std::string& key) const {
    auto v = object(key);
    if (!v) return 0;
    if (v->is_boolean()) return v->get<bool>() ? 1 : 0;
    if (v->is_number_integer() && !v->is_number_unsigned()) return v->get<long long>();
    if (v->is_number_unsigned()) {
        const auto u = v->get<unsigned long long>();
        return u > static_cast<unsigned long long>(std::numeric_limits<long long>::max())
                   ? std::numeric_limits<long long>::max()
                   : static_cast<long long>(u);
    }
    if (v->is_number_float()) {
        // Truncate toward zero; out-of-range values saturate instead of being undefined.
        const double d = v->get<double>();
        if (std::isnan(d)) return 0;
        if (d >= 9.2233720368547758e18) return std::numeric_limits<long long>::max();
        if (d <= -9.2233720368547758e18) return std::numeric_limits<long long>::min();
        return static_cast<long long>(d);
    }
    return 0;
}

std::optional<Date> UserDefaults::date(const std::string& key) const {
    auto v = object(key);
    if (!v) return std::nullopt;
    return value::asDate(*v);
}

std::optional<std::map<std::string, std::string>> UserDefaults::stringDictionary(const std::string& key) const {
    auto v = object(key);
    if (!v || !v->is_object()) return std::nullopt;
    std::map<std::string, std::string> result;
    for (const auto& [k, item] : v->items()) {
        if (!item.is_string()) return std::nullopt;
        result.emplace(k, item.get<std::string>());
    }
    return result;
}

std::vector<std::string> UserDefaults::keys(const std::string& prefix) const {
    std::lock_guard lock(impl_->mutex);
    return impl_->keysWithPrefix(prefix);
}

void UserDefaults::removeKeysWithPrefix(const std::string& prefix) {
    std::lock_guard lock(impl_->mutex);
    // One transaction: another connection never sees half of the name space removed,
    // and the whole removal costs one sync instead of one per key.
    // A COMMIT refused as busy leaves the transaction open, so it is tried again.
    const bool inTransaction = impl_->execChange("BEGIN IMMEDIATE;");
    for (const auto& key : impl_->keysWithPrefix(prefix)) impl_->erase(key);
    if (inTransaction && !impl_->execChange("COMMIT;")) impl_->exec("ROLLBACK;", nullptr);
    noteChangeCommitted();
}

}  // namespace kt
