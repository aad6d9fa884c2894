#pragma once
// The client's SQLite database, "<stateDirectory>/segment/queue.sqlite3" (folder 0700, files
// 0600): the table "messages" holds each waiting message as its JSON text, oldest first by
// row id; the table "state" holds the anonymous id and the user id. Written in WAL mode
// without a sync per commit: a committed row survives a killed process, a power loss may
// cost the last commits. One thread at a time (the client's worker; the constructor before).

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kt::segment {

class SEGMessageStore {
public:
    /// Opens or creates the database in `folder`; null with the reason in `error` on failure.
    static std::unique_ptr<SEGMessageStore> open(const std::filesystem::path& folder, std::string* error = nullptr);
    ~SEGMessageStore();
    SEGMessageStore(const SEGMessageStore&) = delete;
    SEGMessageStore& operator=(const SEGMessageStore&) = delete;

    std::optional<std::string> value(const std::string& key);
    bool setValue(const std::string& key, const std::string& value);

    /// The new row's id, or nullopt when the write failed.
    std::optional<std::int64_t> insert(std::string_view json);
    /// Deletes the rows in one transaction.
    bool remove(const std::vector<std::int64_t>& ids);
    /// Every row, oldest first: id and JSON text.
    std::vector<std::pair<std::int64_t, std::string>> all();
    /// Every row, oldest first: id and the size of its text in bytes, without reading the text.
    std::vector<std::pair<std::int64_t, std::size_t>> sizes();
    /// The rows with ids in [first, last], oldest first.
    std::vector<std::pair<std::int64_t, std::string>> range(std::int64_t first, std::int64_t last);

    const std::string& lastError() const { return lastError_; }

private:
    struct Impl;
    explicit SEGMessageStore(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
    std::string lastError_;
};

}  // namespace kt::segment
