#include "Segment/Client/Detail/SEGMessageStore.h"

#include <sqlite3.h>

#include "Platform/OwnerOnlyFiles.h"

namespace kt::segment {

namespace {

constexpr int kBusyTimeoutMs = 5000;

struct Statement {
    sqlite3_stmt* s = nullptr;
    ~Statement() { sqlite3_finalize(s); }
};

std::string columnText(sqlite3_stmt* s, int column) {
    const auto* text = sqlite3_column_text(s, column);
    return text ? std::string(reinterpret_cast<const char*>(text), sqlite3_column_bytes(s, column)) : std::string();
}

}  // namespace

struct SEGMessageStore::Impl {
    sqlite3* db = nullptr;
    // Prepared once: the worker inserts and deletes one statement per message.
    Statement insert, remove, getValue, putValue, range, all, sizes;
    ~Impl() {
        for (Statement* s : {&insert, &remove, &getValue, &putValue, &range, &all, &sizes}) {
            sqlite3_finalize(s->s);
            s->s = nullptr;
        }
        sqlite3_close(db);
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
    if (sqlite3_open_v2(path.c_str(), &impl->db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) != SQLITE_OK)
        return fail(impl->db ? sqlite3_errmsg(impl->db) : "out of memory");
    sqlite3_busy_timeout(impl->db, kBusyTimeoutMs);
    char* message = nullptr;
    // Exclusive locking before WAL keeps the WAL index in this process's memory: no mapped
    // shared-memory file, which on a full disk would be a SIGBUS rather than an error. One
    // process owns a queue.
    const char* schema =
        "PRAGMA locking_mode=EXCLUSIVE; PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;"
        "CREATE TABLE IF NOT EXISTS messages (id INTEGER PRIMARY KEY AUTOINCREMENT, json TEXT NOT NULL);"
        "CREATE TABLE IF NOT EXISTS state (key TEXT PRIMARY KEY, value TEXT NOT NULL);";
    if (sqlite3_exec(impl->db, schema, nullptr, nullptr, &message) != SQLITE_OK) {
        std::string text = message ? message : sqlite3_errmsg(impl->db);
        sqlite3_free(message);
        return fail(text);
    }
    const std::pair<Statement*, const char*> statements[] = {
        {&impl->insert, "INSERT INTO messages (json) VALUES (?)"},
        {&impl->remove, "DELETE FROM messages WHERE id = ?"},
        {&impl->getValue, "SELECT value FROM state WHERE key = ?"},
        {&impl->putValue, "INSERT OR REPLACE INTO state (key, value) VALUES (?, ?)"},
        {&impl->range, "SELECT id, json FROM messages WHERE id BETWEEN ? AND ? ORDER BY id"},
        {&impl->all, "SELECT id, json FROM messages ORDER BY id"},
        {&impl->sizes, "SELECT id, length(CAST(json AS BLOB)) FROM messages ORDER BY id"},
    };
    for (const auto& [statement, sql] : statements)
        if (sqlite3_prepare_v2(impl->db, sql, -1, &statement->s, nullptr) != SQLITE_OK)
            return fail(sqlite3_errmsg(impl->db));
    return std::unique_ptr<SEGMessageStore>(new SEGMessageStore(std::move(impl)));
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

std::optional<std::int64_t> SEGMessageStore::insert(std::string_view json) {
    sqlite3_stmt* s = impl_->insert.s;
    sqlite3_bind_text(s, 1, json.data(), static_cast<int>(json.size()), SQLITE_STATIC);
    std::optional<std::int64_t> id;
    if (sqlite3_step(s) == SQLITE_DONE)
        id = sqlite3_last_insert_rowid(impl_->db);
    else
        lastError_ = sqlite3_errmsg(impl_->db);
    sqlite3_reset(s);
    return id;
}

bool SEGMessageStore::remove(const std::vector<std::int64_t>& ids) {
    // One commit for the batch instead of one per row.
    const bool transaction = ids.size() > 1 && sqlite3_exec(impl_->db, "BEGIN", nullptr, nullptr, nullptr) == SQLITE_OK;
    bool ok = true;
    for (std::int64_t id : ids) {
        sqlite3_stmt* s = impl_->remove.s;
        sqlite3_bind_int64(s, 1, id);
        if (sqlite3_step(s) != SQLITE_DONE) {
            ok = false;
            lastError_ = sqlite3_errmsg(impl_->db);
        }
        sqlite3_reset(s);
    }
    if (transaction && sqlite3_exec(impl_->db, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK) {
        lastError_ = sqlite3_errmsg(impl_->db);
        sqlite3_exec(impl_->db, "ROLLBACK", nullptr, nullptr, nullptr);
        ok = false;
    }
    return ok;
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
