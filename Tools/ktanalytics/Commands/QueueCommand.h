#pragma once
// `ktanalytics queue --state-dir DIR [--road events|messages|urls]`: what waits on disk in a
// state folder; for events, the gateway queue's files with retry counts and decoded contents.
// Reading never changes a queue: undecodable files are listed as such, not deleted.

#include <cstddef>
#include <filesystem>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>

namespace kt::tool {

/// Writes one JSON object per stored event, in file-name order:
/// {"file": "<sha1>.event", "retry_count": N, "event": NAME, "attributes": {...}}, or
/// {"file": ..., "retry_count": N, "error": "..."} for a file that does not decode. With
/// `countOnly`, writes just the number of stored events. Returns that number, or nullopt
/// (with the reason in `error`) when `stateDirectory` is not a folder.
std::optional<std::size_t> listStoredEvents(const std::filesystem::path& stateDirectory, bool countOnly,
                                            std::ostream& out, std::string& error);

/// As `listStoredEvents` for `road` "events"; for "messages", each waiting product-analytics
/// message as stored (one JSON object a line), and for "urls", {"url": ...} for each waiting
/// promoted request, oldest first. Nullopt, with the reason, while a client holds the messages.
std::optional<std::size_t> listStoredItems(const std::filesystem::path& stateDirectory, std::string_view road,
                                           bool countOnly, std::ostream& out, std::string& error);

/// "dropped by earlier runs: N (reason n, ...)" from the state folder's drop ledger, one
/// line; nothing when the folder has no user defaults yet.
void describeRecordedDrops(const std::filesystem::path& stateDirectory, std::ostream& out);

}  // namespace kt::tool
