#pragma once
// The client's SQLite database, "<stateDirectory>/segment/queue.sqlite3" (folder 0700, files
// 0600): the table "messages" holds each waiting message as its JSON text, oldest first by
// row id; the table "state" holds the anonymous id and the user id; the table "drops" holds
// the count of messages removed without delivery by reason, over every run. Written in WAL
// mode without a sync per commit: a committed row survives a killed process, a power loss
// may cost the last commits. One thread at a time (the client's worker; the constructor
// before).
//
// Disk use is bounded: the journal is checkpointed once it holds 32 pages (128 KiB), cut
// back to at most 1 MiB when it starts over, and emptied by `compact`; the file is made with
// incremental auto-vacuum, so `compact` hands freed pages back to the file system.
//
// A full disk could leave the journal holding pages past the database's end that no
// checkpoint can write, and then nothing, not even a deletion, could be written again. So
// "queue.sqlite3-reserve" holds 512 KiB while the client runs: when a write fails for
// space, it is released, the journal is checkpointed and cut off, and a deletion is tried
// again; new messages are refused until there is room for the reserve again.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kt::segment {

class SEGMessageStore {
public:
    using Drops = std::map<std::string, std::uint64_t>;

    static constexpr int kCheckpointPages = 32;
    static constexpr std::int64_t kJournalLimitBytes = 1024 * 1024;
    static constexpr std::int64_t kReserveBytes = 512 * 1024;

    /// Opens or creates the database in `folder`; null with the reason in `error` on failure.
    static std::unique_ptr<SEGMessageStore> open(const std::filesystem::path& folder, std::string* error = nullptr);
    /// The drop counts recorded in the database in `folder` (empty when there is none), or
    /// nullopt with the reason in `error` when it cannot be read, as while a client holds it.
    static std::optional<Drops> recordedDrops(const std::filesystem::path& folder, std::string* error = nullptr);
    /// The messages waiting in the database in `folder`, oldest first, as stored; read as
    /// `recordedDrops` reads.
    static std::optional<std::vector<std::string>> storedMessages(const std::filesystem::path& folder,
                                                                  std::string* error = nullptr);
    ~SEGMessageStore();
    SEGMessageStore(const SEGMessageStore&) = delete;
    SEGMessageStore& operator=(const SEGMessageStore&) = delete;

    std::optional<std::string> value(const std::string& key);
    bool setValue(const std::string& key, const std::string& value);

    /// Stores the message and adds `drops` to the recorded counts in one transaction; the
    /// new row's id, or nullopt when nothing was written.
    std::optional<std::int64_t> insert(std::string_view json, const Drops& drops = {});
    /// Deletes the rows and adds `drops` to the recorded counts in one transaction; false
    /// when nothing was written.
    bool remove(const std::vector<std::int64_t>& ids, const Drops& drops = {});
    /// Gives pages freed by deletions back to the file system and empties the journal.
    void compact();
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
    template <class Body>
    bool transaction(const Drops& drops, bool growing, Body body);

    std::unique_ptr<Impl> impl_;
    std::string lastError_;
};

}  // namespace kt::segment
