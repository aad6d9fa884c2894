#pragma once
// Takes over single requests and delivers them, retrying as it sees fit.

#include <cstddef>
#include <string_view>

#include "KTAnalytics/Platform/HTTPRequest.h"

namespace kt {

/// Why a request left without delivery: the keys of the uploader's `droppedByReason` and of
/// the `drops` table in its database.
namespace request_drop_reason {
inline constexpr const char* rejected = "rejected";    ///< answered as invalid (other 4xx)
inline constexpr const char* givenUp = "given_up";     ///< out of attempts, or too old
inline constexpr const char* notStored = "not_stored"; ///< the disk refused it; its one attempt from memory failed
inline constexpr const char* queueFull = "queue_full"; ///< the oldest waiting, pushed out by a newer one
inline constexpr const char* unreadable = "unreadable";///< its stored row could not be read back
// Refused when handed over: these can never be sent, so they are neither stored nor retried.
inline constexpr const char* notText = "not_text";     ///< where the URL should be: a number, null, an object, nothing
inline constexpr const char* notAURL = "not_a_url";    ///< not an absolute URL with a host
inline constexpr const char* notHTTP = "not_http";     ///< a scheme other than http or https
inline constexpr const char* controlCharacter = "control_character";  ///< a NUL or another control byte
inline constexpr const char* tooLong = "too_long";     ///< longer than kMaximumRequestURLLength
}  // namespace request_drop_reason

/// Servers commonly refuse a request line longer than 8 KiB (answering 414), the development
/// gateway among them, so a longer URL can never be delivered; the bound also keeps one
/// request from filling the table.
inline constexpr std::size_t kMaximumRequestURLLength = 8 * 1024;

/// Why a request to `url` can never be sent (one of the refusal reasons above), or null
/// when it can be.
const char* refusalReasonForURL(std::string_view url);

class RRUReliableRequestUploader {
public:
    virtual ~RRUReliableRequestUploader() = default;
    RRUReliableRequestUploader() = default;
    RRUReliableRequestUploader(const RRUReliableRequestUploader&) = delete;
    RRUReliableRequestUploader& operator=(const RRUReliableRequestUploader&) = delete;

    /// Takes over one request; returns at once. One that can never be sent is refused,
    /// logged and counted under its reason.
    virtual void uploadRequest(HTTPRequest request) = 0;
    /// Counts a request its caller could not even build (its URL was no text: `reason`) as
    /// handed over and refused; nothing is sent.
    virtual void refuseRequest(const char* reason) = 0;
    /// Sends what waits now.
    virtual void flush() = 0;
    /// Tries the requests that failed before again, at once.
    virtual void uploadFailedRequests() = 0;
};

}  // namespace kt
