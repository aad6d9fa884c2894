#pragma once
// The on-disk queue of gateway events waiting for upload: one file per event in the cache
// directory, named "<sha1 of the contents>.event", holding the keyed archive of the event.
// The retry count lives beside the contents, in the 8-byte native-order extended attribute
// "user.retry_count"; where the file system keeps no user attributes it lives in a hidden
// sidecar file ".<sha1>.retry" instead.
//
// The store takes no lock: every call comes from the batch uploader's serial queue.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "AnalyticsProvider/APEvent.h"
#include "AnalyticsProvider/EventGateway/Upload/APSerializedEvent.h"
#include "AnalyticsProvider/EventGateway/Upload/FileAttributeStoring.h"

namespace kt {

class KTLogger;

class APEventSerializer {
public:
    static constexpr const char* kRetryCountAttribute = "user.retry_count";
    static constexpr const char* kEventExtension = "event";

    /// Lists `cacheDirectory` once to learn what is stored. `fileAttributes` defaults to the
    /// real extended attributes; a null logger logs nothing.
    APEventSerializer(std::filesystem::path cacheDirectory, std::shared_ptr<KTLogger> logger,
                      std::shared_ptr<FileAttributeStoring> fileAttributes = std::make_shared<ExtendedFileAttributes>());
    APEventSerializer() = delete;
    APEventSerializer(const APEventSerializer&) = delete;
    APEventSerializer& operator=(const APEventSerializer&) = delete;

    /// "<cachesRoot>/events", created (owner-only) with `cachesRoot` if missing. Failing to
    /// create `cachesRoot` is fatal ("Something's very wrong here ...").
    static std::filesystem::path eventCacheDirectory(const std::filesystem::path& cachesRoot);

    /// Stores the event (replacing a byte-identical one, whose retry count starts over).
    /// Nullopt when it cannot be archived or written.
    std::optional<APSerializedEvent> serializeEvent(const std::shared_ptr<const APEvent>& event);
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
    /// Raises the stored retry count by one; the new count, or nullopt when it could not be
    /// written (for example because the file is gone).
    std::optional<std::uint64_t> increaseRetryCount(const APSerializedEvent& serializedEvent);
    /// The stored retry count; 0 when none is stored or the stored value is not 8 bytes.
    std::uint64_t retryCountForEventAtURL(const std::filesystem::path& url);

    const std::filesystem::path& cacheDirectory() const { return cacheDirectory_; }
    /// True once the store has found that the file system keeps no user attributes.
    bool usesRetryCountFiles() const { return usesRetryCountFiles_; }

    /// The decoded event in a stored file, or null (logged) when it cannot be read.
    std::shared_ptr<const APEvent> unarchiveEventAtURL(const std::filesystem::path& url) const;

private:
    template <class Collection>
    void deleteEventsIn(const Collection& events);
    void createCacheDirectoryIfNeeded();
    std::optional<std::filesystem::path> URLForEvent(const APEvent& event, const Bytes& archive) const;
    void relist(std::vector<std::filesystem::path>* suffixMatches);
    void removeEventAtPathAndCrash(const std::filesystem::path& url);
    bool removeEventFile(const std::filesystem::path& url, int& error);
    std::filesystem::path retryCountFile(const std::filesystem::path& url) const;
    bool writeRetryCount(const std::filesystem::path& url, std::uint64_t count);
    void removeStaleTemporaryFiles();

    const std::filesystem::path cacheDirectory_;
    const std::shared_ptr<KTLogger> logger_;
    const std::shared_ptr<FileAttributeStoring> fileAttributes_;
    bool usesRetryCountFiles_ = false;
    // The names of the stored files with the extension "event": listed once at start and
    // whenever events are read back, and kept exact by every write and delete, so that
    // counting what waits costs nothing however long the queue grows.
    std::unordered_set<std::string> indexedNames_;
};

}  // namespace kt
