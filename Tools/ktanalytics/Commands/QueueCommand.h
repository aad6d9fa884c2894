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

}  // namespace kt::tool
