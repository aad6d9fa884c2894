#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/APEventSerializer.h"

#include <atomic>
#include <cstdint>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <system_error>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include "KTAnalytics/KTFoundation/LogMacros.h"
#include "KTAnalytics/Platform/Digest.h"
#include "KTAnalytics/Platform/Fatal.h"
#include "KTAnalytics/Platform/KeyedArchive.h"
#include "KTAnalytics/Platform/OwnerOnlyFiles.h"

namespace kt {

namespace fs = std::filesystem;

namespace {

constexpr const char* kFile = "Sources/AnalyticsProvider/EventGateway/Upload/APEventSerializer";
constexpr const char* kDotExtension = ".event";
constexpr const char* kRetryCountFileExtension = ".retry";
// Hidden files of deleted events, kept for the next events to be written into (see
// removeEventFile). A kept file holds a block of the disk, so only a few batches' worth.
constexpr const char* kSparePrefix = ".spare.";
constexpr std::size_t kMaximumSpareFiles = 1024;
// An event archive is around a kilobyte; anything far larger in the folder is not ours and
// is treated as undecodable rather than read into memory.
constexpr std::uintmax_t kMaximumEventFileSize = 16u * 1024u * 1024u;
// Temporary files older than this are leftovers of a process killed mid-write.
constexpr auto kStaleTemporaryAge = std::chrono::minutes(10);

const std::set<std::string>& allowedClasses() {
    static const std::set<std::string> classes = {APEvent::kClassName, APSerializedEvent::kClassName,
                                                  archive::kNumber,    archive::kString,
                                                  archive::kDictionary, archive::kArray};
    return classes;
}

bool isHidden(const std::string& name) { return !name.empty() && name.front() == '.'; }

bool hasEventExtension(const fs::path& name) { return name.extension() == kDotExtension; }
bool hasEventExtension(const std::string& name) { return name.ends_with(kDotExtension) && name.size() > 6; }

bool writeAll(int fd, const std::uint8_t* data, std::size_t size) {
    while (size > 0) {
        const ssize_t written = ::write(fd, data, size);
        if (written < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data += written;
        size -= static_cast<std::size_t>(written);
    }
    return true;
}

// Writes `size` bytes to `target` through a hidden temporary file in the same folder and a
// rename, so that a reader (or a restart after a killed process) sees the old file or the
// new one, never half of one. The file is created owner-only (mkstemp uses mode 0600) and
// exclusively, so nothing already at the temporary name is followed or written into.
// There is deliberately no fsync: it would cost several times the write itself on every
// event. A power loss can therefore lose the events written in the last few seconds
// before it (the kernel's write-back interval), or leave such a file empty; an empty or
// truncated file does not decode and is deleted the next time events are read back.
bool writeAtomically(const fs::path& target, const std::uint8_t* data, std::size_t size) {
    std::string temporary = target.parent_path().native();
    temporary += "/.";
    temporary += target.filename().native();
    temporary += ".XXXXXX";
    const int fd = ::mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0) return false;
    const bool written = writeAll(fd, data, size);
    const bool closed = ::close(fd) == 0;
    if (!written || !closed || ::rename(temporary.c_str(), target.c_str()) != 0) {
        const int saved = errno;
        ::unlink(temporary.c_str());
        errno = saved;
        return false;
    }
    return true;
}

// Writes into a kept file of a deleted event instead of a new one, renamed into place as a
// new file would be. Its old bytes are overwritten in place and cut only where they ran
// longer: emptying it first would make ext4 write it back at close and discard its blocks.
bool overwriteSpare(const std::string& spare, const fs::path& target, const Bytes& data) {
    const int fd = ::open(spare.c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) return false;
    struct stat info {};
    // Only the store's own file: whatever was put under the hidden name is not written into.
    bool written = ::fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_nlink == 1 &&
                   writeAll(fd, data.data(), data.size()) &&
                   (static_cast<std::uintmax_t>(info.st_size) <= data.size() ||
                    ::ftruncate(fd, static_cast<off_t>(data.size())) == 0);
    written = ::close(fd) == 0 && written;
    return written && ::rename(spare.c_str(), target.c_str()) == 0;
}

std::string fileURL(const fs::path& path) { return "file://" + path.native(); }

}  // namespace

APEventSerializer::APEventSerializer(fs::path cacheDirectory, std::shared_ptr<KTLogger> logger,
                                     std::shared_ptr<FileAttributeStoring> fileAttributes,
                                     std::shared_ptr<EventFolderAccessing> folder)
    : cacheDirectory_(std::move(cacheDirectory)),
      logger_(logger ? std::move(logger) : KTLogger::null()),
      fileAttributes_(std::move(fileAttributes)),
      folder_(std::move(folder)) {
    KT_PARAMETER_ASSERT_TEXT(fileAttributes_ != nullptr, "fileManager");
    KT_PARAMETER_ASSERT_TEXT(folder_ != nullptr, "fileManager");
    KT_PARAMETER_ASSERT_TEXT(!cacheDirectory_.empty(), "cacheDirectory");
    // ".spare.<process>.<store>.<n>", the store named by its address: two stores alive in one
    // process never take each other's, and a store's own go with it.
    sparePrefix_ = (cacheDirectory_ / (kSparePrefix + std::to_string(::getpid()) + "." +
                                       std::to_string(reinterpret_cast<std::uintptr_t>(this)) + "."))
                       .native();
    // Asking the folder itself tells whether this file system keeps user attributes at all,
    // before any event needs its count (and before a restart deletes an event whose count
    // sits in a sidecar file).
    int error = 0;
    if (!fileAttributes_->attribute(cacheDirectory_, kRetryCountAttribute, error) &&
        FileAttributeStoring::isUnsupported(error))
        usesRetryCountFiles_ = true;
    relist(nullptr);
    removeStaleTemporaryFiles();
}

APEventSerializer::~APEventSerializer() {
    for (const auto& spare : spareFiles_) ::unlink(spare.c_str());
}

fs::path APEventSerializer::eventCacheDirectory(const fs::path& cachesRoot) {
    std::string error;
    KT_ASSERT(createOwnerOnlyDirectories(cachesRoot, &error), "Something's very wrong here " + error);
    fs::path directory = cachesRoot / "events";
    // A failure here is left to the first write, which tries again and reports.
    createOwnerOnlyDirectories(directory, nullptr);
    return directory;
}

bool APEventSerializer::write(const fs::path& url, const Bytes& archive) {
    if (!spareFiles_.empty()) {
        std::string spare = std::move(spareFiles_.back());
        spareFiles_.pop_back();
        if (overwriteSpare(spare, url, archive)) return true;
        ::unlink(spare.c_str());  // only the hidden name goes; a new file is made instead
    }
    if (writeAtomically(url, archive.data(), archive.size())) return true;
    // The folder is made when the store is, and again only when it has gone (a user
    // clearing caches): asking for it before every write would cost a call per event.
    if (errno != ENOENT || !createOwnerOnlyDirectories(cacheDirectory_, nullptr)) return false;
    return writeAtomically(url, archive.data(), archive.size());
}

std::optional<APSerializedEvent> APEventSerializer::serializeEvent(const std::shared_ptr<const APEvent>& event,
                                                                   APEventStoreFailure* failure) {
    KT_PARAMETER_ASSERT_TEXT(event != nullptr, "event");
    const auto fail = [failure](APEventStoreFailure why) -> std::optional<APSerializedEvent> {
        if (failure) *failure = why;
        return std::nullopt;
    };
    if (failure) *failure = APEventStoreFailure::none;
    // Every walk below (description, archive, digest) recurses through the attributes.
    if (event->attributes() && value::nestsDeeperThan(*event->attributes(), kMaximumAttributeDepth)) {
        KT_LOG(logger_, 3, kFile, "-[APEventSerializer serializeEvent:]",
               "Can't store event {}: its attributes nest deeper than {} levels", event->name(),
               kMaximumAttributeDepth);
        return fail(APEventStoreFailure::tooDeeplyNested);
    }
    // Stored, such an event would make the JSON of every batch it joins fail, and the batch
    // would be dropped with it.
    if (event->attributes() && value::holdsNonFiniteNumber(*event->attributes())) {
        KT_LOG(logger_, 3, kFile, "-[APEventSerializer serializeEvent:]",
               "Can't store event {}: an attribute is NaN or infinite, which JSON cannot carry", event->name());
        return fail(APEventStoreFailure::notArchivable);
    }
    KT_LOG(logger_, 0, kFile, "-[APEventSerializer serializeEvent:]", "Serializing event: {}", event->description());

    // The archive is made once: its bytes both name the file and fill it.
    Bytes archive;
    try {
        archive = event->archivedData();
    } catch (const std::exception& e) {
        KT_LOG(logger_, 3, kFile, "-[APEventSerializer URLForEvent:]", "Can't encode event: {} with value {}",
               event->description(), e.what());
        return fail(APEventStoreFailure::notArchivable);
    }
    std::string name = sha1Hex(archive.data(), archive.size());
    name += kDotExtension;
    fs::path url = cacheDirectory_ / name;
    if (!write(url, archive)) {
        noteWriteFailure(errno);
        return fail(APEventStoreFailure::writeFailed);
    }
    writesFailing_ = false;
    // A rewritten file is a new file: its retry count starts over, as the attribute of the
    // replaced file went with it.
    if (!memoryRetryCounts_.empty()) memoryRetryCounts_.erase(name);
    if (sidecarNames_.erase(name) != 0) ::unlink(retryCountFile(url).c_str());
    if (!mayHoldCount_.empty()) mayHoldCount_.erase(name);
    indexedNames_.insert(std::move(name));
    return APSerializedEvent(event, std::move(url));
}

void APEventSerializer::noteWriteFailure(int error) {
    if (writesFailing_) return;
    writesFailing_ = true;
    KT_LOG(logger_, 2, kFile, "-[APEventSerializer serializeEvent:]",
           "Can't write events to {}: {}; events are dropped until writing works again", cacheDirectory_.native(),
           std::strerror(error));
}

void APEventSerializer::relist(std::vector<fs::path>* suffixMatches) {
    std::unordered_set<std::string> names;
    for (auto& entry : folder_->list(cacheDirectory_, kEventExtension)) {
        const bool ours = hasEventExtension(entry.name);
        if (entry.kind != EventFolderEntryKind::plainFile) {
            if (ours) removeForeignEntry(cacheDirectory_ / entry.name, entry.kind == EventFolderEntryKind::directory);
            continue;
        }
        // Reading back keeps every name ending in "event", with or without the dot.
        if (suffixMatches) suffixMatches->push_back(cacheDirectory_ / entry.name);
        if (!ours) continue;
        // A file this store did not write may carry a count, so its inode is never reused.
        if (indexedNames_.count(entry.name) == 0) mayHoldCount_.insert(entry.name);
        names.insert(std::move(entry.name));
    }
    indexedNames_ = std::move(names);
}

void APEventSerializer::removeForeignEntry(const fs::path& path, bool isDirectory) {
    // Removing the entry never touches what a link points to; a folder goes only when empty.
    const bool removed = (isDirectory ? ::rmdir(path.c_str()) : ::unlink(path.c_str())) == 0;
    if (removed) counters_.foreignEntriesRemoved.fetch_add(1, std::memory_order_relaxed);
    KT_LOG(logger_, 2, kFile, "-[APEventSerializer serializedEvents]", "{} {}: not an event file of this store",
           removed ? "Removed" : "Left", fileURL(path));
}

std::vector<std::string> APEventSerializer::relistReadableNames() {
    std::vector<fs::path> paths;
    relist(&paths);
    std::vector<std::string> names;
    names.reserve(paths.size());
    for (auto& path : paths) names.push_back(path.filename().native());
    return names;
}

std::optional<APSerializedEvent> APEventSerializer::serializedEventNamed(const std::string& name) {
    fs::path url = cacheDirectory_ / name;
    // One open: the entry is judged on the opened file, not looked up first.
    std::string error;
    auto kind = EventFolderEntryKind::missing;
    auto bytes = folder_->read(url, kMaximumEventFileSize, error, &kind);
    if (kind == EventFolderEntryKind::missing) {
        KT_LOG(logger_, 0, kFile, "-[APEventSerializer serializedEvents]",
               "Trying to serialize event from non existing file {}", fileURL(url));
        indexedNames_.erase(name);
        return std::nullopt;
    }
    if (kind != EventFolderEntryKind::plainFile) {
        indexedNames_.erase(name);
        if (hasEventExtension(url.filename())) removeForeignEntry(url, kind == EventFolderEntryKind::directory);
        return std::nullopt;
    }
    auto event = bytes ? decodeEvent(*bytes, error) : nullptr;
    if (!event) {
        logUndecodable(url, error);
        removeEventAtPathAndCrash(url);
        counters_.unreadableDeleted.fetch_add(1, std::memory_order_relaxed);
        return std::nullopt;
    }
    return APSerializedEvent(std::move(event), std::move(url));
}

void APEventSerializer::removeStaleTemporaryFiles() {
    std::error_code ec;
    const auto now = fs::file_time_type::clock::now();
    for (fs::directory_iterator it(cacheDirectory_, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string name = it->path().filename().native();
        // Kept files of a process that has ended (killed before its store went) go.
        if (name.starts_with(kSparePrefix)) {
            const long owner = std::strtol(name.c_str() + std::strlen(kSparePrefix), nullptr, 10);
            if (owner <= 0 || (::kill(static_cast<pid_t>(owner), 0) != 0 && errno == ESRCH)) ::unlink(it->path().c_str());
            continue;
        }
        // ".<sha1>.retry": the count of "<sha1>.event", removed with it.
        if (isHidden(name) && name.size() > 7 && name.ends_with(kRetryCountFileExtension)) {
            sidecarNames_.insert(name.substr(1, name.size() - 1 - std::strlen(kRetryCountFileExtension)) +
                                 kDotExtension);
            continue;
        }
        // ".<sha1>.event.XXXXXX" and ".<sha1>.retry.XXXXXX"
        if (!isHidden(name) || name.size() < 8 || name[name.size() - 7] != '.' ||
            (name.find(kDotExtension) == std::string::npos && name.find(kRetryCountFileExtension) == std::string::npos))
            continue;
        std::error_code timeError;
        const auto modified = fs::last_write_time(it->path(), timeError);
        if (!timeError && now - modified > kStaleTemporaryAge) ::unlink(it->path().c_str());
    }
}

APSerializedEventSet APEventSerializer::serializedEvents() { return serializedEvents(nullptr); }

APSerializedEventSet APEventSerializer::serializedEvents(const std::function<bool(const fs::path&)>& skip) {
    std::vector<fs::path> urls;
    relist(&urls);
    APSerializedEventSet events;
    for (const auto& url : urls)
        if (!skip || !skip(url))
            if (auto stored = serializedEventNamed(url.filename().native())) events.insert(std::move(*stored));
    return events;
}

std::shared_ptr<const APEvent> APEventSerializer::unarchiveEventAtURL(const fs::path& url) const {
    std::string error;
    std::shared_ptr<const APEvent> event;
    if (auto bytes = folder_->read(url, kMaximumEventFileSize, error)) event = decodeEvent(*bytes, error);
    if (!event) logUndecodable(url, error);
    return event;
}

std::shared_ptr<const APEvent> APEventSerializer::decodeEvent(const Bytes& bytes, std::string& error) {
    auto coder = KeyedUnarchiver::fromBytes(bytes, allowedClasses(), &error);
    if (!coder) return nullptr;
    // A record the gateway could not take (another root class, no name, no attributes
    // dictionary) would stop the process when decoded or uploaded, and then again at every
    // start; it counts as undecodable instead. Each field is decoded once, into the event.
    if (coder->className() != APEvent::kClassName) {
        error = "unexpected root class " + coder->className();
        return nullptr;
    }
    auto name = coder->decodeString("_name");
    if (!name) {
        error = "record without a name";
        return nullptr;
    }
    auto attributes = coder->takeValue("_attributes");
    if (!attributes || !attributes->is_object()) {
        error = "record without an attributes dictionary";
        return nullptr;
    }
    return APEvent::make(std::move(*name), std::move(*attributes));
}

void APEventSerializer::logUndecodable(const fs::path& url, const std::string& error) const {
    KT_LOG(logger_, 3, kFile, "-[APEventSerializer unarchiveEventAtURL:]",
           "Due to an {} unable to unarchive analytics object at {}", error, fileURL(url));
}

bool APEventSerializer::removeEventFile(const fs::path& url, int& error, bool keepAsSpare) {
    // Where creating a file costs most right after deletions (ext4 without a journal skips
    // inodes freed in the last 30 seconds), a deleted event's file is kept under a hidden
    // name for the next event to be written into. Only a file no count was ever given is
    // kept (a count is an attribute of the file and would pass to the next event). At most
    // kMaximumSpareFiles are kept; they go with the store, or at the next start after a
    // crash. Until reused, a kept file still holds the delivered event's bytes, readable by
    // the owner alone like every file here.
    const std::string name = url.filename().native();
    bool removed = false;
    if (keepAsSpare && spareFiles_.size() < kMaximumSpareFiles && mayHoldCount_.count(name) == 0) {
        std::string spare = sparePrefix_ + std::to_string(nextSpare_++);
        removed = ::rename(url.c_str(), spare.c_str()) == 0;
        if (removed) spareFiles_.push_back(std::move(spare));
    } else {
        removed = ::unlink(url.c_str()) == 0;
    }
    error = removed ? 0 : errno;
    if (removed || error == ENOENT) {
        indexedNames_.erase(name);
        if (!memoryRetryCounts_.empty()) memoryRetryCounts_.erase(name);
        if (!mayHoldCount_.empty()) mayHoldCount_.erase(name);
    }
    if (sidecarNames_.erase(name) != 0) ::unlink(retryCountFile(url).c_str());
    return removed;
}

void APEventSerializer::removeEventAtPathAndCrash(const fs::path& url) {
    int error = 0;
    removeEventFile(url, error, false);  // errors ignored: the file is simply listed again next time
}

template <class Collection>
void APEventSerializer::deleteEventsIn(const Collection& events) {
    KT_PARAMETER_ASSERT_TEXT(!events.empty(), "[events count] > 0");
    KT_LOG(logger_, 0, kFile, "-[APEventSerializer deleteEvents:]", "Deleting events: {}",
           describeSerializedEvents(events));
    for (const auto& event : events) {
        int error = 0;
        if (!removeEventFile(event.eventURL(), error, true))
            KT_LOG(logger_, 0, kFile, "-[APEventSerializer deleteEvents:]", "Could not delete event: {}",
                   fileURL(event.eventURL()));
    }
}

void APEventSerializer::deleteEvents(const APSerializedEventSet& events) { deleteEventsIn(events); }
void APEventSerializer::deleteEvents(const std::vector<APSerializedEvent>& events) { deleteEventsIn(events); }

fs::path APEventSerializer::retryCountFile(const fs::path& url) const {
    return url.parent_path() / ("." + url.stem().native() + kRetryCountFileExtension);
}

std::uint64_t APEventSerializer::retryCountForEventAtURL(const fs::path& url) {
    if (auto remembered = memoryRetryCounts_.find(url.filename().native()); remembered != memoryRetryCounts_.end())
        return remembered->second;
    std::optional<Bytes> stored;
    if (!usesRetryCountFiles_) {
        int error = 0;
        stored = fileAttributes_->attribute(url, kRetryCountAttribute, error);
        if (!stored && FileAttributeStoring::isUnsupported(error)) usesRetryCountFiles_ = true;
    }
    if (usesRetryCountFiles_ && sidecarNames_.count(url.filename().native()) != 0) {
        std::string error;
        stored = folder_->read(retryCountFile(url), sizeof(std::uint64_t), error);
    }
    std::uint64_t count = 0;
    if (stored && stored->size() == sizeof count) std::memcpy(&count, stored->data(), sizeof count);
    return count;
}

bool APEventSerializer::writeRetryCount(const fs::path& url, std::uint64_t count) {
    Bytes bytes(sizeof count);
    std::memcpy(bytes.data(), &count, sizeof count);
    if (!usesRetryCountFiles_) {
        const int error = fileAttributes_->setAttribute(url, kRetryCountAttribute, bytes);
        if (error == 0) {
            mayHoldCount_.insert(url.filename().native());
            return true;
        }
        if (!FileAttributeStoring::isUnsupported(error)) {
            errno = error;
            return false;
        }
        usesRetryCountFiles_ = true;
    }
    // A count for an event that is gone would outlive it.
    if (folder_->kind(url) != EventFolderEntryKind::plainFile) return false;
    if (!writeAtomically(retryCountFile(url), bytes.data(), bytes.size())) return false;
    sidecarNames_.insert(url.filename().native());
    return true;
}

std::optional<std::uint64_t> APEventSerializer::increaseRetryCount(const APSerializedEvent& serializedEvent) {
    const auto& url = serializedEvent.eventURL();
    const std::uint64_t count = retryCountForEventAtURL(url) + 1;
    KT_LOG(logger_, 0, kFile, "-[APEventSerializer increaseRetryCount:]", "Increasing retryCount to {} for event {}",
           count, serializedEvent.description());
    if (writeRetryCount(url, count)) {
        memoryRetryCounts_.erase(url.filename().native());
        return count;
    }
    const int error = errno;
    if (folder_->kind(url) != EventFolderEntryKind::plainFile) return std::nullopt;
    // Without a stored count the event would either be retried forever or dropped at its
    // first failure; memory keeps its attempts honest until the process ends.
    memoryRetryCounts_[url.filename().native()] = count;
    counters_.retryCountsInMemory.fetch_add(1, std::memory_order_relaxed);
    if (!loggedMemoryRetryCount_) {
        loggedMemoryRetryCount_ = true;
        KT_LOG(logger_, 3, kFile, "-[APEventSerializer increaseRetryCount:]",
               "Could not store retryCount {} for event {}: {}; retry counts are kept in memory from now on",
               count, fileURL(url), std::strerror(error));
    }
    return count;
}

APEventStoreStatistics APEventSerializer::statistics() const {
    const auto load = [](const std::atomic<std::uint64_t>& c) { return c.load(std::memory_order_relaxed); };
    return {load(counters_.unreadableDeleted), load(counters_.foreignEntriesRemoved),
            load(counters_.retryCountsInMemory)};
}

}  // namespace kt
