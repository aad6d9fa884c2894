#include "KTAnalytics/Segment/Client/Detail/SEGMessageStore.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include "KTAnalytics/Platform/OwnerOnlyFiles.h"

namespace kt::segment {

namespace {

constexpr int kBusyTimeoutMs = 5000;
// A reader from another process waits this long for the owner's lock before giving up.
constexpr int kReaderBusyTimeoutMs = 250;
// Pages moved per vacuum step: each step is a transaction of its own, so that the journal
// stays within its bound however many pages were freed.
constexpr int kVacuumStepPages = 16;
// A file made before auto-vacuum is rebuilt with it at start when it is at most this large:
// the rebuild goes through the journal.
constexpr std::int64_t kLargestConvertedBytes = 1024 * 1024;

struct Statement {
    sqlite3_stmt* s = nullptr;
    ~Statement() { sqlite3_finalize(s); }
};

std::string columnText(sqlite3_stmt* s, int column) {
    const auto* text = sqlite3_column_text(s, column);
    return text ? std::string(reinterpret_cast<const char*>(text), sqlite3_column_bytes(s, column)) : std::string();
}

std::int64_t pragmaValue(sqlite3* db, const char* sql) {
    Statement s;
    if (sqlite3_prepare_v2(db, sql, -1, &s.s, nullptr) != SQLITE_OK || sqlite3_step(s.s) != SQLITE_ROW) return -1;
    return sqlite3_column_int64(s.s, 0);
}

}  // namespace

struct SEGMessageStore::Impl {
    std::filesystem::path reserve;
    bool reserveReleased = true;
    sqlite3* db = nullptr;
    // Prepared once: the worker inserts and deletes one statement per message.
    Statement insert, remove, getValue, putValue, range, all, sizes, addDrop, freePages;
    ~Impl() {
        for (Statement* s : {&insert, &remove, &getValue, &putValue, &range, &all, &sizes, &addDrop, &freePages}) {
            sqlite3_finalize(s->s);
            s->s = nullptr;
        }
        sqlite3_close(db);
        // Made again at the next start: a stopped client holds no space it does not use.
        if (!reserve.empty()) ::unlink(reserve.c_str());
    }

    // Keeps the reserve file in place; false when the disk has no room for it.
    bool keepReserve() {
        if (!reserveReleased) return true;
        const int fd = ::open(reserve.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC | O_NOFOLLOW, 0600);
        reserveReleased = fd < 0 || ::posix_fallocate(fd, 0, kReserveBytes) != 0;
        if (fd >= 0) ::close(fd);
        if (reserveReleased) ::unlink(reserve.c_str());
        return !reserveReleased;
    }

    void releaseReserve() {
        ::unlink(reserve.c_str());
        reserveReleased = true;
    }
};

SEGMessageStore::SEGMessageStore(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
SEGMessageStore::~SEGMessageStore() = default;

std::unique_ptr<SEGMessageStore> SEGMessageStore::open(const std::filesystem::path& folder, std::string* error) {
    auto fail = [&](std::string reason) -> std::unique_ptr<SEGMessageStore> {
        if (error) *error = std::move(reason);
        return nullptr;
    };
    std::string reason;
    if (!createOwnerOnlyDirectories(folder, &reason)) return fail(reason);
    const auto path = folder / "queue.sqlite3";
    // Journals take the database's mode: making the file owner-only first covers them too.
    if (!ensureOwnerOnlyFile(path, &reason)) return fail(reason);
    auto impl = std::make_unique<Impl>();
    impl->reserve = folder / "queue.sqlite3-reserve";
    impl->keepReserve();
    if (sqlite3_open_v2(path.c_str(), &impl->db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) != SQLITE_OK)
        return fail(impl->db ? sqlite3_errmsg(impl->db) : "out of memory");
    sqlite3_busy_timeout(impl->db, kBusyTimeoutMs);
    char* message = nullptr;
    // Exclusive locking before WAL keeps the WAL index in this process's memory: no mapped
    // shared-memory file, which on a full disk would be a SIGBUS rather than an error. One
    // process owns a queue. Auto-vacuum takes effect only on a new file, before its tables.
    // Secure delete in its fast form: a freed page is not written just to zero it, which on
    // a full disk would make every deletion cost a page of journal per message.
    const std::string schema =
        "PRAGMA locking_mode=EXCLUSIVE; PRAGMA auto_vacuum=INCREMENTAL; PRAGMA journal_mode=WAL;"
        "PRAGMA synchronous=NORMAL; PRAGMA secure_delete=FAST; PRAGMA wal_autocheckpoint=" + std::to_string(kCheckpointPages) +
        "; PRAGMA journal_size_limit=" + std::to_string(kJournalLimitBytes) + ";"
        "CREATE TABLE IF NOT EXISTS messages (id INTEGER PRIMARY KEY AUTOINCREMENT, json TEXT NOT NULL);"
        "CREATE TABLE IF NOT EXISTS state (key TEXT PRIMARY KEY, value TEXT NOT NULL);"
        "CREATE TABLE IF NOT EXISTS drops (reason TEXT PRIMARY KEY, count INTEGER NOT NULL);";
    if (sqlite3_exec(impl->db, schema.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
        std::string text = message ? message : sqlite3_errmsg(impl->db);
        sqlite3_free(message);
        return fail(text);
    }
    // A file from before auto-vacuum would keep its freed pages: rebuilt once while small;
    // a larger one is tried again at a later start. Best effort.
    if (pragmaValue(impl->db, "PRAGMA auto_vacuum") == 0 &&
        pragmaValue(impl->db, "PRAGMA page_count") * pragmaValue(impl->db, "PRAGMA page_size") <= kLargestConvertedBytes)
        sqlite3_exec(impl->db, "PRAGMA auto_vacuum=INCREMENTAL; VACUUM; PRAGMA wal_checkpoint(TRUNCATE);", nullptr,
                     nullptr, nullptr);
    const std::pair<Statement*, const char*> statements[] = {
        {&impl->insert, "INSERT INTO messages (json) VALUES (?)"},
        {&impl->remove, "DELETE FROM messages WHERE id = ?"},
        {&impl->getValue, "SELECT value FROM state WHERE key = ?"},
        {&impl->putValue, "INSERT OR REPLACE INTO state (key, value) VALUES (?, ?)"},
        {&impl->range, "SELECT id, json FROM messages WHERE id BETWEEN ? AND ? ORDER BY id"},
        {&impl->all, "SELECT id, json FROM messages ORDER BY id"},
        {&impl->sizes, "SELECT id, length(CAST(json AS BLOB)) FROM messages ORDER BY id"},
        {&impl->addDrop,
         "INSERT INTO drops (reason, count) VALUES (?, ?) ON CONFLICT(reason) DO UPDATE SET count = count + excluded.count"},
        {&impl->freePages, "PRAGMA freelist_count"},
    };
    for (const auto& [statement, sql] : statements)
        if (sqlite3_prepare_v2(impl->db, sql, -1, &statement->s, nullptr) != SQLITE_OK)
            return fail(sqlite3_errmsg(impl->db));
    return std::unique_ptr<SEGMessageStore>(new SEGMessageStore(std::move(impl)));
}

namespace {

// Reads the queue in `folder` from outside its client: calls `row` for each row of `sql`.
// False, with the reason in `error`, when the file cannot be read (as while a client holds
// it); true with no rows when there is no file or no such table yet.
template <class Row>
bool readQueue(const std::filesystem::path& folder, const char* sql, std::string* error, Row row) {
    const auto path = folder / "queue.sqlite3";
    std::error_code ignored;
    if (!std::filesystem::exists(path, ignored)) return true;
    sqlite3* db = nullptr;
    struct Close {
        sqlite3*& db;
        ~Close() { sqlite3_close(db); }
    } close{db};
    auto fail = [&] {
        if (error) *error = db ? sqlite3_errmsg(db) : "out of memory";
        return false;
    };
    // Read-write without creating, and exclusive as the owner: a journal a killed process
    // left is read (and folded in) through an index in memory, with no shared-memory file.
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) return fail();
    sqlite3_busy_timeout(db, kReaderBusyTimeoutMs);
    if (sqlite3_exec(db, "PRAGMA locking_mode=EXCLUSIVE", nullptr, nullptr, nullptr) != SQLITE_OK) return fail();
    Statement s;
    if (sqlite3_prepare_v2(db, sql, -1, &s.s, nullptr) != SQLITE_OK) {
        // A queue from before the table (or not yet set up) holds nothing of it.
        if (sqlite3_errcode(db) == SQLITE_ERROR) return true;
        return fail();
    }
    int rc;
    while ((rc = sqlite3_step(s.s)) == SQLITE_ROW) row(s.s);
    return rc == SQLITE_DONE || fail();
}

}  // namespace

std::optional<SEGMessageStore::Drops> SEGMessageStore::recordedDrops(const std::filesystem::path& folder,
                                                                     std::string* error) {
    Drops drops;
    if (!readQueue(folder, "SELECT reason, count FROM drops", error, [&](sqlite3_stmt* s) {
            drops[columnText(s, 0)] += static_cast<std::uint64_t>(sqlite3_column_int64(s, 1));
        }))
        return std::nullopt;
    return drops;
}

std::optional<std::vector<std::string>> SEGMessageStore::storedMessages(const std::filesystem::path& folder,
                                                                        std::string* error) {
    std::vector<std::string> messages;
    if (!readQueue(folder, "SELECT json FROM messages ORDER BY id", error,
                   [&](sqlite3_stmt* s) { messages.push_back(columnText(s, 0)); }))
        return std::nullopt;
    return messages;
}

std::optional<std::string> SEGMessageStore::value(const std::string& key) {
    sqlite3_stmt* s = impl_->getValue.s;
    sqlite3_bind_text(s, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
    std::optional<std::string> result;
    if (sqlite3_step(s) == SQLITE_ROW) result = columnText(s, 0);
    sqlite3_reset(s);
    return result;
}

bool SEGMessageStore::setValue(const std::string& key, const std::string& value) {
    sqlite3_stmt* s = impl_->putValue.s;
    sqlite3_bind_text(s, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
    sqlite3_bind_text(s, 2, value.data(), static_cast<int>(value.size()), SQLITE_STATIC);
    const bool ok = sqlite3_step(s) == SQLITE_DONE;
    if (!ok) lastError_ = sqlite3_errmsg(impl_->db);
    sqlite3_reset(s);
    return ok;
}

template <class Body>
bool SEGMessageStore::transaction(const Drops& drops, bool growing, Body body) {
    sqlite3* db = impl_->db;
    if (growing && !impl_->keepReserve()) {
        lastError_ = "no room left beside the space kept to delete sent messages";
        return false;
    }
    auto step = [&](sqlite3_stmt* s) {
        const bool ok = sqlite3_step(s) == SQLITE_DONE;
        sqlite3_reset(s);
        return ok;
    };
    for (int attempt = 0; attempt < 2; ++attempt) {
        bool ok = sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) == SQLITE_OK && body(step);
        for (auto it = drops.begin(); ok && it != drops.end(); ++it) {
            sqlite3_bind_text(impl_->addDrop.s, 1, it->first.data(), static_cast<int>(it->first.size()), SQLITE_STATIC);
            sqlite3_bind_int64(impl_->addDrop.s, 2, static_cast<std::int64_t>(it->second));
            ok = step(impl_->addDrop.s);
        }
        if (ok && sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK) return true;
        const int code = sqlite3_errcode(db);
        lastError_ = sqlite3_errmsg(db);
        if (sqlite3_get_autocommit(db) == 0) sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
        if (code != SQLITE_FULL && code != SQLITE_IOERR) return false;
        // The journal may hold pages past the database's end that a checkpoint cannot write
        // on a full disk: the reserve makes room for them, and the journal is cut off. What
        // is left is kept for deletions; new messages wait until the reserve is back.
        impl_->releaseReserve();
        sqlite3_exec(db, "PRAGMA wal_checkpoint(TRUNCATE)", nullptr, nullptr, nullptr);
        if (growing) return false;
    }
    return false;
}

std::optional<std::int64_t> SEGMessageStore::insert(std::string_view json, const Drops& drops) {
    std::optional<std::int64_t> id;
    const bool written = transaction(drops, true, [&](auto& step) {
        sqlite3_bind_text(impl_->insert.s, 1, json.data(), static_cast<int>(json.size()), SQLITE_STATIC);
        if (!step(impl_->insert.s)) return false;
        id = sqlite3_last_insert_rowid(impl_->db);
        return true;
    });
    return written ? id : std::nullopt;
}

bool SEGMessageStore::remove(const std::vector<std::int64_t>& ids, const Drops& drops) {
    if (ids.empty() && drops.empty()) return true;
    return transaction(drops, false, [&](auto& step) {
        for (std::int64_t id : ids) {
            sqlite3_bind_int64(impl_->remove.s, 1, id);
            if (!step(impl_->remove.s)) return false;
        }
        return true;
    });
}

void SEGMessageStore::compact() {
    // Bounded: a later call carries on.
    for (int i = 0; i < 256; ++i) {
        sqlite3_stmt* s = impl_->freePages.s;
        const std::int64_t free = sqlite3_step(s) == SQLITE_ROW ? sqlite3_column_int64(s, 0) : 0;
        sqlite3_reset(s);
        const std::string vacuum = "PRAGMA incremental_vacuum(" + std::to_string(kVacuumStepPages) + ")";
        if (free <= 0 || sqlite3_exec(impl_->db, vacuum.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) break;
    }
    sqlite3_exec(impl_->db, "PRAGMA wal_checkpoint(TRUNCATE)", nullptr, nullptr, nullptr);
    impl_->keepReserve();
}

namespace {

std::vector<std::pair<std::int64_t, std::string>> rows(sqlite3_stmt* s) {
    std::vector<std::pair<std::int64_t, std::string>> result;
    while (sqlite3_step(s) == SQLITE_ROW) result.emplace_back(sqlite3_column_int64(s, 0), columnText(s, 1));
    sqlite3_reset(s);
    return result;
}

}  // namespace

std::vector<std::pair<std::int64_t, std::string>> SEGMessageStore::all() { return rows(impl_->all.s); }

std::vector<std::pair<std::int64_t, std::size_t>> SEGMessageStore::sizes() {
    sqlite3_stmt* s = impl_->sizes.s;
    std::vector<std::pair<std::int64_t, std::size_t>> result;
    while (sqlite3_step(s) == SQLITE_ROW)
        result.emplace_back(sqlite3_column_int64(s, 0), static_cast<std::size_t>(sqlite3_column_int64(s, 1)));
    sqlite3_reset(s);
    return result;
}

std::vector<std::pair<std::int64_t, std::string>> SEGMessageStore::range(std::int64_t first, std::int64_t last) {
    sqlite3_bind_int64(impl_->range.s, 1, first);
    sqlite3_bind_int64(impl_->range.s, 2, last);
    return rows(impl_->range.s);
}

}  // namespace kt::segment
