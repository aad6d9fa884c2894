#include "AnalyticsProvider/EventGateway/Upload/APEventSerializer.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "KTFoundation/LogMacros.h"
#include "Platform/Digest.h"
#include "Platform/Fatal.h"
#include "Platform/KeyedArchive.h"

namespace kt {

namespace fs = std::filesystem;

namespace {

constexpr const char* kFile = "Sources/AnalyticsProvider/EventGateway/Upload/APEventSerializer";
constexpr const char* kDotExtension = ".event";
constexpr const char* kRetryCountFileExtension = ".retry";
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

// Creates every missing directory of `path` readable by its owner only.
bool createOwnerOnlyDirectories(const fs::path& path, std::string* error) {
    fs::path partial;
    for (const auto& component : path) {
        partial /= component;
        if (::mkdir(partial.c_str(), 0700) != 0 && errno != EEXIST) {
            if (error) *error = partial.native() + ": " + std::strerror(errno);
            return false;
        }
    }
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        if (error) *error = path.native() + ": not a directory";
        return false;
    }
    return true;
}

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
// new one, never half of one. The file is created owner-only (mkstemp uses mode 0600).
// There is deliberately no fsync: it would cost several times the write itself on every
// event. A power loss can therefore lose the events written in the last few seconds
// before it (the kernel's write-back interval), or leave such a file empty; an empty or
// truncated file does not decode and is deleted the next time events are read back.
bool writeAtomically(const fs::path& target, const std::uint8_t* data, std::size_t size) {
    std::string temporary = (target.parent_path() / ("." + target.filename().native() + ".XXXXXX")).native();
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

std::optional<Bytes> readFile(const fs::path& path, std::string& error) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        error = std::strerror(errno);
        return std::nullopt;
    }
    struct stat info {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) ||
        static_cast<std::uintmax_t>(info.st_size) > kMaximumEventFileSize) {
        error = "not an event file of a plausible size";
        ::close(fd);
        return std::nullopt;
    }
    Bytes bytes(static_cast<std::size_t>(info.st_size));
    std::size_t filled = 0;
    while (filled < bytes.size()) {
        const ssize_t n = ::read(fd, bytes.data() + filled, bytes.size() - filled);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            error = std::strerror(errno);
            ::close(fd);
            return std::nullopt;
        }
        if (n == 0) break;
        filled += static_cast<std::size_t>(n);
    }
    ::close(fd);
    bytes.resize(filled);
    return bytes;
}

std::string fileURL(const fs::path& path) { return "file://" + path.native(); }

}  // namespace

APEventSerializer::APEventSerializer(fs::path cacheDirectory, std::shared_ptr<KTLogger> logger,
                                     std::shared_ptr<FileAttributeStoring> fileAttributes)
    : cacheDirectory_(std::move(cacheDirectory)),
      logger_(logger ? std::move(logger) : KTLogger::null()),
      fileAttributes_(std::move(fileAttributes)) {
    KT_PARAMETER_ASSERT_TEXT(fileAttributes_ != nullptr, "fileManager");
    KT_PARAMETER_ASSERT_TEXT(!cacheDirectory_.empty(), "cacheDirectory");
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

fs::path APEventSerializer::eventCacheDirectory(const fs::path& cachesRoot) {
    std::string error;
    KT_ASSERT(createOwnerOnlyDirectories(cachesRoot, &error), "Something's very wrong here " + error);
    fs::path directory = cachesRoot / "events";
    // A failure here is left to the first write, which tries again and reports.
    createOwnerOnlyDirectories(directory, nullptr);
    return directory;
}

void APEventSerializer::createCacheDirectoryIfNeeded() {
    std::error_code ec;
    if (!fs::exists(cacheDirectory_, ec)) createOwnerOnlyDirectories(cacheDirectory_, nullptr);
}

std::optional<fs::path> APEventSerializer::URLForEvent(const APEvent& event, const Bytes& archive) const {
    return cacheDirectory_ / (sha1Hex(archive.data(), archive.size()) + kDotExtension);
}

std::optional<APSerializedEvent> APEventSerializer::serializeEvent(const std::shared_ptr<const APEvent>& event) {
    KT_PARAMETER_ASSERT_TEXT(event != nullptr, "event");
    KT_LOG(logger_, 0, kFile, "-[APEventSerializer serializeEvent:]", "Serializing event: {}", event->description());
    createCacheDirectoryIfNeeded();

    // The archive is made once: its bytes both name the file and fill it.
    Bytes archive;
    try {
        archive = event->archivedData();
    } catch (const std::exception& e) {
        KT_LOG(logger_, 3, kFile, "-[APEventSerializer URLForEvent:]", "Can't encode event: {} with value {}",
               event->description(), e.what());
        return std::nullopt;
    }
    auto url = URLForEvent(*event, archive);
    if (!url) return std::nullopt;

    if (!writeAtomically(*url, archive.data(), archive.size())) return std::nullopt;
    indexedNames_.insert(url->filename().native());
    // A rewritten file is a new file: its retry count starts over, as the attribute of the
    // replaced file went with it.
    if (usesRetryCountFiles_) ::unlink(retryCountFile(*url).c_str());
    return APSerializedEvent(event, std::move(*url));
}

void APEventSerializer::relist(std::vector<fs::path>* suffixMatches) {
    std::unordered_set<std::string> names;
    std::error_code ec;
    for (fs::directory_iterator it(cacheDirectory_, ec), end; !ec && it != end; it.increment(ec)) {
        const fs::path& path = it->path();
        const std::string name = path.filename().native();
        if (isHidden(name)) continue;
        if (hasEventExtension(path.filename())) names.insert(name);
        // Reading back keeps every name ending in "event", with or without the dot.
        if (suffixMatches && name.ends_with(kEventExtension)) suffixMatches->push_back(path);
    }
    indexedNames_ = std::move(names);
}

void APEventSerializer::removeStaleTemporaryFiles() {
    std::error_code ec;
    const auto now = fs::file_time_type::clock::now();
    for (fs::directory_iterator it(cacheDirectory_, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string name = it->path().filename().native();
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
    APSerializedEventSet result;
    result.reserve(urls.size());
    for (auto& url : urls) {
        if (skip && skip(url)) continue;
        std::error_code ec;
        if (!fs::exists(url, ec)) {
            KT_LOG(logger_, 0, kFile, "-[APEventSerializer serializedEvents]",
                   "Trying to serialize event from non existing file {}", fileURL(url));
            indexedNames_.erase(url.filename().native());
            continue;
        }
        auto event = unarchiveEventAtURL(url);
        if (!event) {
            removeEventAtPathAndCrash(url);
            continue;
        }
        result.emplace(std::move(event), std::move(url));
    }
    return result;
}

std::shared_ptr<const APEvent> APEventSerializer::unarchiveEventAtURL(const fs::path& url) const {
    std::string error;
    std::shared_ptr<const APEvent> event;
    if (auto bytes = readFile(url, error)) {
        if (auto coder = KeyedUnarchiver::fromBytes(*bytes, allowedClasses(), &error)) {
            // A record the gateway could not take (another root class, no name, no
            // attributes dictionary) would stop the process when decoded or uploaded, and
            // then again at every start; it counts as undecodable instead.
            if (coder->className() != APEvent::kClassName)
                error = "unexpected root class " + coder->className();
            else if (!coder->decodeString("_name"))
                error = "record without a name";
            else if (auto attributes = coder->decodeValue("_attributes"); !attributes || !attributes->is_object())
                error = "record without an attributes dictionary";
            else
                event = APEvent::decode(*coder);
        }
    }
    if (!event)
        KT_LOG(logger_, 3, kFile, "-[APEventSerializer unarchiveEventAtURL:]",
               "Due to an {} unable to unarchive analytics object at {}", error, fileURL(url));
    return event;
}

bool APEventSerializer::removeEventFile(const fs::path& url, int& error) {
    const bool removed = ::unlink(url.c_str()) == 0;
    error = removed ? 0 : errno;
    if (removed || error == ENOENT) indexedNames_.erase(url.filename().native());
    if (usesRetryCountFiles_) ::unlink(retryCountFile(url).c_str());
    return removed;
}

void APEventSerializer::removeEventAtPathAndCrash(const fs::path& url) {
    int error = 0;
    removeEventFile(url, error);  // errors ignored: the file is simply listed again next time
}

template <class Collection>
void APEventSerializer::deleteEventsIn(const Collection& events) {
    KT_PARAMETER_ASSERT_TEXT(!events.empty(), "[events count] > 0");
    KT_LOG(logger_, 0, kFile, "-[APEventSerializer deleteEvents:]", "Deleting events: {}",
           describeSerializedEvents(events));
    for (const auto& event : events) {
        int error = 0;
        if (!removeEventFile(event.eventURL(), error))
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
    std::optional<Bytes> stored;
    if (!usesRetryCountFiles_) {
        int error = 0;
        stored = fileAttributes_->attribute(url, kRetryCountAttribute, error);
        if (!stored && FileAttributeStoring::isUnsupported(error)) usesRetryCountFiles_ = true;
    }
    if (usesRetryCountFiles_) {
        std::string error;
        stored = readFile(retryCountFile(url), error);
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
        if (error == 0) return true;
        if (!FileAttributeStoring::isUnsupported(error)) return false;
        usesRetryCountFiles_ = true;
    }
    // A count for an event that is gone would outlive it.
    std::error_code ec;
    if (!fs::exists(url, ec)) return false;
    return writeAtomically(retryCountFile(url), bytes.data(), bytes.size());
}

std::optional<std::uint64_t> APEventSerializer::increaseRetryCount(const APSerializedEvent& serializedEvent) {
    const std::uint64_t count = retryCountForEventAtURL(serializedEvent.eventURL()) + 1;
    KT_LOG(logger_, 0, kFile, "-[APEventSerializer increaseRetryCount:]", "Increasing retryCount to {} for event {}",
           count, serializedEvent.description());
    if (!writeRetryCount(serializedEvent.eventURL(), count)) {
        KT_LOG(logger_, 3, kFile, "-[APEventSerializer increaseRetryCount:]",
               "Could not store retryCount {} for event {}: {}", count, fileURL(serializedEvent.eventURL()),
               std::strerror(errno));
        return std::nullopt;
    }
    return count;
}

}  // namespace kt
