#pragma once
// The on-disk queue of gateway events waiting for upload: one file per event in the cache
// directory, named "<sha1 of the contents>.event", holding the keyed archive of the event.
// The retry count lives beside the contents, in the 8-byte native-order extended attribute
// "user.retry_count"; where the file system keeps no user attributes it lives in a hidden
// sidecar file ".<sha1>.retry" instead.
//
// The folder holds only what the store made: entries that are not plain files of our own
// (links, FIFOs, folders, files with other names linked in) are never opened in a way that
// blocks, never followed, and removed when they carry the store's own extension.
//
// The store takes no lock: every call comes from the batch uploader's serial queue. Its
// statistics may be read from any thread.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "KTAnalytics/AnalyticsProvider/APEvent.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/APSerializedEvent.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/EventFolderAccessing.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/FileAttributeStoring.h"

namespace kt {

class KTLogger;

/// Why an event handed to the store was not stored.
enum class APEventStoreFailure {
    none,
    tooDeeplyNested,  ///< attributes nest deeper than `kMaximumAttributeDepth`
    notArchivable,    ///< the archiver refused a value
    writeFailed,      ///< no space, no inodes, an I/O error, a folder that cannot be made
};

/// What the store has done since it was made. Counts only grow; readable from any thread.
struct APEventStoreStatistics {
    std::uint64_t unreadableDeleted = 0;     ///< files deleted because they could not be read back
    std::uint64_t foreignEntriesRemoved = 0; ///< links, FIFOs, empty folders removed from the folder
    std::uint64_t retryCountsInMemory = 0;   ///< counts kept in memory because the file refused them
};

class APEventSerializer {
public:
    static constexpr const char* kRetryCountAttribute = "user.retry_count";
    static constexpr const char* kEventExtension = "event";
    /// The deepest nesting of arrays and dictionaries an event may carry: written and read
    /// back alike, so the store never writes a record it would refuse to read.
    static constexpr std::size_t kMaximumAttributeDepth = 256;

    /// Lists `cacheDirectory` once to learn what is stored. `fileAttributes` and `folder`
    /// default to the real extended attributes and folder; a null logger logs nothing.
    APEventSerializer(std::filesystem::path cacheDirectory, std::shared_ptr<KTLogger> logger,
                      std::shared_ptr<FileAttributeStoring> fileAttributes = std::make_shared<ExtendedFileAttributes>(),
                      std::shared_ptr<EventFolderAccessing> folder = std::make_shared<PosixEventFolder>());
    ~APEventSerializer();
    APEventSerializer() = delete;
    APEventSerializer(const APEventSerializer&) = delete;
    APEventSerializer& operator=(const APEventSerializer&) = delete;

    /// "<cachesRoot>/events", created (owner-only) with `cachesRoot` if missing. Failing to
    /// create `cachesRoot` is fatal ("Something's very wrong here ...").
    static std::filesystem::path eventCacheDirectory(const std::filesystem::path& cachesRoot);

    /// Stores the event (replacing a byte-identical one, whose retry count starts over).
    /// Nullopt when it cannot be archived or written; `failure`, when given, says why.
    std::optional<APSerializedEvent> serializeEvent(const std::shared_ptr<const APEvent>& event,
                                                    APEventStoreFailure* failure = nullptr);
    /// Reads back the stored file of that name. Nullopt when the file is gone, not ours or
    /// undecodable (then deleted on the spot and counted).
    std::optional<APSerializedEvent> serializedEventNamed(const std::string& name);
    /// Lists the folder again (the index follows it) and returns the names that reading
    /// back takes: every plain file whose name ends in "event", with or without the dot.
    std::vector<std::string> relistReadableNames();
    /// Reads every stored event back. Files that cannot be decoded are deleted on the spot.
    APSerializedEventSet serializedEvents();
    /// The same, leaving out (unread) the files for which `skip` holds. A file's name is the
    /// digest of its contents, so a caller that already holds a file's event loses nothing
    /// by skipping it.
    APSerializedEventSet serializedEvents(const std::function<bool(const std::filesystem::path&)>& skip);
    /// The number of stored files with the extension "event". Answered from memory.
    std::size_t serializedEventsCount() const { return indexedNames_.size(); }
    /// Deletes the events' files; failures are logged. An empty collection is fatal.
    void deleteEvents(const APSerializedEventSet& events);
    void deleteEvents(const std::vector<APSerializedEvent>& events);
    /// Raises the retry count by one and returns it. A count the file refuses is kept in
    /// memory for the life of the store (logged once, counted), so the event still gets its
    /// attempts; nullopt only when the event's file is gone.
    std::optional<std::uint64_t> increaseRetryCount(const APSerializedEvent& serializedEvent);
    /// The retry count; 0 when none is stored or the stored value is not 8 bytes.
    std::uint64_t retryCountForEventAtURL(const std::filesystem::path& url);

    APEventStoreStatistics statistics() const;

    const std::filesystem::path& cacheDirectory() const { return cacheDirectory_; }
    /// True once the store has found that the file system keeps no user attributes.
    bool usesRetryCountFiles() const { return usesRetryCountFiles_; }

    /// The decoded event in a stored file, or null (logged) when it cannot be read.
    std::shared_ptr<const APEvent> unarchiveEventAtURL(const std::filesystem::path& url) const;

private:
    template <class Collection>
    void deleteEventsIn(const Collection& events);
    bool write(const std::filesystem::path& url, const Bytes& archive);
    static std::shared_ptr<const APEvent> decodeEvent(const Bytes& bytes, std::string& error);
    void logUndecodable(const std::filesystem::path& url, const std::string& error) const;
    void relist(std::vector<std::filesystem::path>* suffixMatches);
    void removeForeignEntry(const std::filesystem::path& path, bool isDirectory);
    void noteWriteFailure(int error);
    void removeEventAtPathAndCrash(const std::filesystem::path& url);
    bool removeEventFile(const std::filesystem::path& url, int& error, bool keepAsSpare);
    std::filesystem::path retryCountFile(const std::filesystem::path& url) const;
    bool writeRetryCount(const std::filesystem::path& url, std::uint64_t count);
    void removeStaleTemporaryFiles();

    const std::filesystem::path cacheDirectory_;
    const std::shared_ptr<KTLogger> logger_;
    const std::shared_ptr<FileAttributeStoring> fileAttributes_;
    const std::shared_ptr<EventFolderAccessing> folder_;
    bool usesRetryCountFiles_ = false;
    // The names of the stored files with the extension "event": listed once at start and
    // whenever events are read back, and kept exact by every write and delete, so that
    // counting what waits costs nothing however long the queue grows.
    std::unordered_set<std::string> indexedNames_;
    // Counts the file system refused to keep, by file name.
    std::unordered_map<std::string, std::uint64_t> memoryRetryCounts_;
    bool loggedMemoryRetryCount_ = false;
    // The event files whose count lives in a sidecar: found at start and kept by every
    // write of a count, so that storing and deleting events ask for no sidecar that
    // cannot be there.
    std::unordered_set<std::string> sidecarNames_;
    // Hidden files of deleted events, written into by the next events (see removeEventFile).
    std::string sparePrefix_;
    std::vector<std::string> spareFiles_;
    std::uint64_t nextSpare_ = 0;
    // Event files that may carry a count (this store gave them one, or did not write them):
    // never kept for reuse.
    std::unordered_set<std::string> mayHoldCount_;
    // A failed write is logged once per run of failures, not once per event.
    bool writesFailing_ = false;

    struct Counters {
        std::atomic<std::uint64_t> unreadableDeleted{0}, foreignEntriesRemoved{0}, retryCountsInMemory{0};
    };
    Counters counters_;
};

}  // namespace kt
