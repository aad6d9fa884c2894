#pragma once
// `ktanalytics queue --state-dir DIR`: what waits in the gateway's on-disk event queue of a
// state folder, with retry counts and decoded contents. Reading never changes the queue:
// undecodable files are listed as such, not deleted.

#include <cstddef>
#include <filesystem>
#include <iosfwd>
#include <optional>
#include <string>

namespace kt::tool {

/// Writes one JSON object per stored event, in file-name order:
/// {"file": "<sha1>.event", "retry_count": N, "event": NAME, "attributes": {...}}, or
/// {"file": ..., "retry_count": N, "error": "..."} for a file that does not decode. With
/// `countOnly`, writes just the number of stored events. Returns that number, or nullopt
/// (with the reason in `error`) when `stateDirectory` is not a folder.
std::optional<std::size_t> listStoredEvents(const std::filesystem::path& stateDirectory, bool countOnly,
                                            std::ostream& out, std::string& error);

/// "dropped by earlier runs: N (reason n, ...)" from the state folder's drop ledger, one
/// line; nothing when the folder has no user defaults yet.
void describeRecordedDrops(const std::filesystem::path& stateDirectory, std::ostream& out);

}  // namespace kt::tool
