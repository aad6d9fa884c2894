#pragma once
// Sends the client's uploads to the event gateway host instead of its API host, signed
// with the user's credential. Requests to any other host go out untouched and unsigned.

#include <memory>
#include <string>

#include "KTAnalytics/Platform/HTTPRequest.h"

namespace kt {

class KTLogger;
class KeychainCredentialStoring;

struct SegmentRequestRewriter {
    std::shared_ptr<KeychainCredentialStoring> keychain;
    std::string segmentAPIHost;
    std::string replacementAPIHost;
    std::string defaultSegmentAPIHost;
    std::shared_ptr<KTLogger> logger;

    /// `apiHost` is the client's configured API URL; its host, or the default one when
    /// it has none, is the host that gets re-addressed.
    static SegmentRequestRewriter make(std::shared_ptr<KeychainCredentialStoring> keychain, const std::string& apiHost,
                                       std::string replacementAPIHost, std::shared_ptr<KTLogger> logger);

    HTTPRequest operator()(const std::string& url) const;
};

}  // namespace kt
