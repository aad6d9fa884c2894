#include "Gateway/GatewayEndpoints.h"
#include "Gateway/GatewayPage.h"
#include "Gateway/PlanValidation.h"
#include "Gateway/UploadBody.h"
#include "Gateway/UploadReader.h"
#include "KTAnalytics/Platform/JSONSerialization.h"

#include <algorithm>
#include <charconv>
#include <mutex>
#include <optional>
#include <ostream>
#include <random>
#include <system_error>
#include <thread>
#include <tuple>
#include <vector>
#include <utility>

#include <malloc.h>
#include <strings.h>
#include <sys/socket.h>
#include <nlohmann/json.hpp>

namespace kt::gateway {

namespace {

using nlohmann::json;

// httplib inflates gzip bodies by itself when "Content-Encoding" says so; the gateway must
// see the bytes as sent to check them, so the header is moved aside before the body is read.
constexpr const char* kSetAsideEncoding = "X-Gateway-Received-Content-Encoding";
// httplib runs a request's handler and then its logger on one worker thread, and calls the
// logger only after the response is on its way, when the client may already have sent its
// next request on another connection. Routed requests are therefore logged by their handler
// before answering, so the log keeps the order of handling; the logger covers the rest
// (unknown paths, unreadable requests).
thread_local bool tLoggedByHandler = false;
thread_local std::size_t tEventsStored = 0;
thread_local std::size_t tMessagesStored = 0;
thread_local std::size_t tDuplicatesStored = 0;
// One line per violation found while handling the request, logged after its own line.
thread_local std::vector<std::string> tViolationLines;
constexpr std::size_t kDefaultEventsLimit = 100;
// A body past its limit is still read and dropped up to this much, so an honest client gets
// its 413 on a connection left in step; past it the connection is given up.
constexpr std::size_t kDrainBytes = std::size_t{64} << 20;
// Threads serving connections at most; below it every connection gets a thread of its own,
// so clients that send slowly or not at all hold up only themselves.
constexpr std::size_t kMaximumWorkers = 1024;
// A client silent for this long in the middle of a request, or between requests, is dropped.
constexpr time_t kReadTimeoutSeconds = 2;
constexpr time_t kWriteTimeoutSeconds = 5;
// What an upload refused for want of memory is told to wait: bodies are held for well under
// a second each, so the budget has room again by then.
constexpr const char* kBusyRetryAfterSeconds = "1";
// Decoding an upload at least this large leaves pieces of free memory behind in the workers'
// malloc arenas, which glibc keeps for later; they are handed back to the system at once
// (malloc_trim), so that one burst of large uploads does not leave the gateway hundreds of MiB
// larger for the rest of its run.
constexpr std::size_t kTrimAfterBytes = std::size_t{1} << 20;

enum class BodyRead { complete, tooLarge, overBudget, pastDeadline, failed };

// Reads a body through httplib, keeping at most `maximum` bytes of it in `body` while the
// budget has room for them; past either, the rest is read and dropped.
BodyRead readBody(const httplib::ContentReader& read, const httplib::Response& response, std::size_t maximum,
                  HeldBody& body) {
    std::size_t received = 0;
    bool overBudget = false;
    const bool complete = read([&](const char* data, std::size_t size) {
        received += size;
        if (received <= maximum && !overBudget) {
            if (body.append(data, size)) return true;
            overBudget = true;
        }
        body.release();
        return received <= maximum || received - maximum <= kDrainBytes;
    });
    if (requestPastDeadline()) return BodyRead::pastDeadline;
    // httplib answers 413 by itself to a declared Content-Length past its payload limit.
    if (received > maximum || response.status == 413) return BodyRead::tooLarge;
    if (overBudget) return BodyRead::overBudget;
    return complete ? BodyRead::complete : BodyRead::failed;
}

json headersOf(const httplib::Request& request) {
    json headers = json::object();
    for (const auto& [name, value] : request.headers) {
        // httplib adds the socket's addresses as pseudo-headers; they were never sent.
        if (name == "LOCAL_ADDR" || name == "LOCAL_PORT" || name == "REMOTE_ADDR" || name == "REMOTE_PORT") continue;
        const std::string shown = name == kSetAsideEncoding ? "Content-Encoding" : name;
        headers[shown] = isCredential(name) ? "present" : value;
    }
    return headers;
}

std::string dumped(const json& value) { return value.dump(-1, ' ', false, json::error_handler_t::replace); }

void answerJSON(httplib::Response& response, int status, const json& body) {
    response.status = status;
    response.set_content(dumped(body), "application/json");
}

json eventsRefusal(const std::string& why) { return json{{"error", why}}; }
json batchRefusal(const std::string& why) { return json{{"success", false}, {"error", why}}; }

// What differs between the upload endpoints on the road they share.
struct UploadRoad {
    std::uint64_t GatewayStatistics::*requests;
    // A batch may come as plain JSON; an events upload must be gzip.
    bool plainAllowed;
    json (*refusal)(const std::string& why);
    UploadItems (*read)(std::string_view text);
};

constexpr UploadRoad kEventsRoad{&GatewayStatistics::requests, false, eventsRefusal, readEventsUpload};
constexpr UploadRoad kBatchRoad{&GatewayStatistics::batchRequests, true, batchRefusal, readBatchUpload};

void answerText(httplib::Response& response, std::string body) {
    response.status = 200;
    response.set_content(std::move(body), "application/json");
}

}  // namespace

struct GatewayEndpoints::Handlers {
    const GatewayConfiguration& configuration;
    GatewayStore& store;
    ErrorNote& errors;
    HTTPServer server{kMaximumWorkers};

    std::mutex decodeMutex;
    BodyBudget bodyBudget;
    std::mutex randomMutex;
    std::mt19937_64 random;  // guarded by randomMutex
    std::mutex logMutex;

    Handlers(const GatewayConfiguration& c, GatewayStore& s, ErrorNote& e)
        : configuration(c), store(s), errors(e),
          bodyBudget(std::max(configuration.heldBodyBudgetBytes, configuration.maxBodyBytes)) {
        random.seed(configuration.seed ? *configuration.seed : std::random_device{}());
    }

    void logLine(const std::string& line) {
        if (configuration.log == nullptr) return;
        std::lock_guard lock(logMutex);
        *configuration.log << line << std::endl;
    }

    // Draws whether this request is answered with the configured failure.
    bool injectFailure() {
        if (configuration.failRate <= 0.0) return false;
        {
            std::lock_guard lock(randomMutex);
            if (std::uniform_real_distribution<double>(0.0, 1.0)(random) >= configuration.failRate) return false;
        }
        store.count([](GatewayStatistics& s) { ++s.failuresInjected; });
        return true;
    }

    void delayIfConfigured() {
        if (configuration.delay.count() > 0) std::this_thread::sleep_for(configuration.delay);
    }

    // The road both upload endpoints share: counts the request, reads the body within its
    // limit and the memory budget, draws the injected failure, waits the configured delay,
    // inflates within the raw limit, refuses deep nesting and reads the JSON. Refusals are
    // answered here in the endpoint's shape; `accept` gets the items read while uploads are
    // still decoded one at a time.
    template <class Accept>
    void receiveUpload(const httplib::Request& request, httplib::Response& response,
                       const httplib::ContentReader& read, const UploadRoad& road, Accept accept) {
        store.count([&](GatewayStatistics& s) { ++(s.*road.requests); });
        HeldBody body(bodyBudget);
        const BodyRead bodyRead = readBody(read, response, configuration.maxBodyBytes, body);
        // Counted where the connection is closed.
        if (bodyRead == BodyRead::pastDeadline) return answerJSON(response, 408, road.refusal(pastDeadlineWhy()));
        if (bodyRead == BodyRead::overBudget) {
            store.count([](GatewayStatistics& s) { ++s.overMemoryBudget; });
            response.set_header("Retry-After", kBusyRetryAfterSeconds);
            return answerJSON(response, 503, road.refusal("the gateway holds too many bodies at once; retry later"));
        }
        if (injectFailure()) {
            answerJSON(response, configuration.failStatus, road.refusal("injected failure"));
            return;
        }
        delayIfConfigured();
        auto reject = [&](int status, const std::string& why) {
            store.count([](GatewayStatistics& s) { ++s.rejected; });
            answerJSON(response, status, road.refusal(why));
        };
        if (bodyRead == BodyRead::tooLarge)
            return reject(413, "the body is larger than " + std::to_string(configuration.maxBodyBytes) + " bytes");
        if (bodyRead == BodyRead::failed) return reject(400, "the body could not be read");
        // Uploads are decoded one at a time, each in at most about three times its inflated
        // size (the text, the stored texts and the parser's own buffer); they are stored one
        // at a time anyway.
        std::lock_guard decoding(decodeMutex);
        std::size_t rawSize = 0;
        decode(request, body, road, reject, accept, rawSize);
        if (rawSize >= kTrimAfterBytes) malloc_trim(0);
    }

    template <class Reject, class Accept>
    void decode(const httplib::Request& request, HeldBody& body, const UploadRoad& road, Reject& reject,
                Accept& accept, std::size_t& rawSize) {
        ReceivedBody received{.received = body.text().size()};
        const std::string encoding = request.get_header_value(kSetAsideEncoding);
        std::string raw;
        if (!road.plainAllowed || strcasecmp(encoding.c_str(), "gzip") == 0 || startsLikeGzip(body.text())) {
            received.gzip = true;
            const Inflated inflated = gunzip(body.text(), configuration.maxRawBytes, raw);
            rawSize = raw.size();
            switch (inflated) {
            case Inflated::complete:
                break;
            case Inflated::notGzip:
                return reject(400, "the body is not gzip");
            case Inflated::tooLarge:
                return reject(413, "the body inflates to more than " + std::to_string(configuration.maxRawBytes) +
                                       " bytes");
            }
        } else if (!encoding.empty() && strcasecmp(encoding.c_str(), "identity") != 0) {
            return reject(400, "Content-Encoding " + encoding + " is not taken; send gzip or plain JSON");
        } else {
            raw = body.text();
        }
        body.release();
        received.raw = rawSize = raw.size();
        if (jsonTextNestsDeeperThan(raw, kMaximumNesting))
            return reject(400, "the body nests JSON deeper than " + std::to_string(kMaximumNesting) + " levels");
        const UploadItems items = road.read(raw);
        std::string().swap(raw);
        if (items.notJSON) return reject(400, "the body is not JSON");
        if (!items.why.empty()) return reject(400, items.why);
        accept(items, received);
    }

    std::string pastDeadlineWhy() const {
        return "the request did not arrive within " + std::to_string(configuration.requestDeadline.count()) + " ms";
    }

    // Each item's violations, `check` given the item as JSON. When the gateway is strict and
    // any item breaks a rule, the upload is refused here (400 in the road's shape, naming the
    // first such item and its rules, with every violation listed) and true is answered.
    template <class Check>
    std::vector<std::vector<Violation>> checked(const UploadItems& items, Road road, httplib::Response& response,
                                                bool& refused, Check check) {
        std::vector<std::vector<Violation>> found(items.size());
        std::vector<GatewayStore::RefusedItem> breaking;
        for (std::size_t i = 0; i < items.size(); ++i) {
            auto [id, event, item] = check(i);
            found[i] = std::move(item);
            if (found[i].empty()) continue;
            for (const Violation& v : found[i])
                tViolationLines.push_back("  " + id + " \"" + event + "\" " + v.rule + (v.key ? " " + *v.key : "") +
                                          ": " + v.detail);
            breaking.push_back({std::move(id), std::move(event), found[i]});
        }
        refused = configuration.strict && !breaking.empty();
        if (!refused) return found;
        tViolationLines.push_back("  refused: the gateway is strict");
        store.recordRefused(road, breaking);
        store.count([](GatewayStatistics& s) { ++s.rejected; });
        const auto& first = breaking.front();
        std::string rules;
        json listed = json::array();
        for (const auto& item : breaking)
            for (const Violation& v : item.violations) {
                if (&item == &first) rules += (rules.empty() ? "" : ", ") + v.rule + (v.key ? " (" + *v.key + ")" : "");
                listed.push_back(json{{"messageId", item.id}, {"event", item.event}, {"rule", v.rule},
                                      {"key", v.key ? json(*v.key) : json(nullptr)}, {"detail", v.detail}});
            }
        const std::string what = road == Road::gatewayEvent ? first.id : "message " + dumped(json(first.id));
        json body = (road == Road::gatewayEvent ? eventsRefusal : batchRefusal)(
            what + " breaks " + rules + (breaking.size() > 1 ? ", and " + std::to_string(breaking.size() - 1) + " more items break rules" : ""));
        body["violations"] = std::move(listed);
        answerJSON(response, 400, body);
        return found;
    }

    void handleUpload(const httplib::Request& request, httplib::Response& response,
                      const httplib::ContentReader& read) {
        receiveUpload(request, response, read, kEventsRoad, [&](const UploadItems& elements, const ReceivedBody& received) {
            bool refused = false;
            const auto violations = checked(elements, Road::gatewayEvent, response, refused, [&](std::size_t i) {
                const json element{{"event", elements.field(i, eventName)},
                                   {"payload", json::parse(elements.field(i, eventPayload), nullptr, false)}};
                return std::tuple("event-" + std::to_string(i), std::string(elements.field(i, eventName)),
                                  gatewayEventViolations(element));
            });
            if (refused) return;
            if (!store.storeEvents(elements, dumped(headersOf(request)), received, violations))
                return answerJSON(response, 500, eventsRefusal("storage failed"));
            tEventsStored = elements.size();
            answerJSON(response, 200, json{{"accepted", elements.size()}});
        });
    }

    void handleBatch(const httplib::Request& request, httplib::Response& response,
                     const httplib::ContentReader& read) {
        receiveUpload(request, response, read, kBatchRoad, [&](const UploadItems& messages, const ReceivedBody& received) {
            bool refused = false;
            const auto violations = checked(messages, Road::productAnalytics, response, refused, [&](std::size_t i) {
                return std::tuple(std::string(messages.field(i, messageId)), std::string(messages.field(i, messageName)),
                                  messageViolations(json::parse(messages.field(i, messageWhole), nullptr, false)));
            });
            if (refused) return;
            // The scheme tells a user's token from the client's own write key; the credential
            // itself is never kept.
            const std::string header = request.get_header_value("Authorization");
            const std::string authorization = header.empty() ? "" : header.substr(0, header.find(' ') + 1) + "present";
            std::size_t duplicates = 0;
            if (!store.storeMessages(messages, dumped(headersOf(request)), authorization, received, violations,
                                     duplicates))
                return answerJSON(response, 500, batchRefusal("storage failed"));
            tMessagesStored = messages.size();
            tDuplicatesStored = duplicates;
            answerJSON(response, 200, json{{"success", true}});
        });
    }

    void handleViolations(const httplib::Request& request, httplib::Response& response) {
        if (const auto limit = listingLimit(request, response)) answerText(response, store.violationsListingJSON(*limit));
    }

    void handleReset(const httplib::Request&, httplib::Response& response) {
        if (!store.reset()) return answerJSON(response, 500, json{{"error", "storage failed"}});
        answerJSON(response, 200, json{{"reset", true}});
    }

    void handleTracking(const httplib::Request& request, httplib::Response& response) {
        if (injectFailure()) {
            answerJSON(response, configuration.failStatus, json{{"error", "injected failure"}});
            return;
        }
        delayIfConfigured();
        if (!store.storeTrackingRequest(request.method, request.target, request.path, dumped(headersOf(request)))) {
            answerJSON(response, 500, json{{"error", "storage failed"}});
            return;
        }
        response.status = 200;
    }

    // The `limit` of a listing; nullopt, with the 400 answered, when it is not 0 to 1,000.
    std::optional<std::size_t> listingLimit(const httplib::Request& request, httplib::Response& response) const {
        std::size_t limit = kDefaultEventsLimit;
        if (request.has_param("limit")) {
            const std::string text = request.get_param_value("limit");
            const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), limit);
            if (ec != std::errc() || end != text.data() + text.size() || text.empty() || limit > kMaximumEventsLimit) {
                answerJSON(response, 400,
                           json{{"error", "limit must be an integer from 0 to " + std::to_string(kMaximumEventsLimit)}});
                return std::nullopt;
            }
        }
        return limit;
    }

    void handleTrackingListing(const httplib::Request& request, httplib::Response& response) {
        if (const auto limit = listingLimit(request, response)) answerText(response, store.trackingListingJSON(*limit));
    }

    // The request's line, then those of the violations found in it, together in the log.
    void logWithViolations(std::string line) {
        for (const std::string& violation : tViolationLines) line += "\n" + violation;
        tViolationLines.clear();
        logLine(line);
    }

    void logRequest(const httplib::Request& request, int status, std::size_t events) {
        logLine(request.method + " " + request.path + " " + std::to_string(status) + " events=" +
                std::to_string(events));
    }

    void handleStats(const httplib::Request&, httplib::Response& response) {
        answerText(response, store.statisticsJSON());
    }

    void handleEvents(const httplib::Request& request, httplib::Response& response) {
        if (const auto limit = listingLimit(request, response)) answerText(response, store.eventsListingJSON(*limit));
    }

    void handleMessages(const httplib::Request& request, httplib::Response& response) {
        if (const auto limit = listingLimit(request, response)) answerText(response, store.messagesListingJSON(*limit));
    }

    void installRoutes() {
        server.set_pre_routing_handler([](const httplib::Request& request, httplib::Response&) {
            if (request.has_header("Content-Encoding")) {
                // The request object is the server's own, not a constant: only the handler
                // signature is const. Moving the header keeps httplib from inflating the body.
                auto& headers = const_cast<httplib::Request&>(request).headers;
                const std::string value = request.get_header_value("Content-Encoding");
                headers.erase("Content-Encoding");
                headers.emplace(kSetAsideEncoding, value);
            }
            return httplib::Server::HandlerResponse::Unhandled;
        });
        auto logged = [this](void (Handlers::*handler)(const httplib::Request&, httplib::Response&)) {
            return [this, handler](const httplib::Request& q, httplib::Response& r) {
                tEventsStored = 0;
                (this->*handler)(q, r);
                logRequest(q, r.status, tEventsStored);
                tLoggedByHandler = true;
            };
        };
        server.Post("/v1/events", [this](const httplib::Request& q, httplib::Response& r,
                                         const httplib::ContentReader& read) {
            tEventsStored = 0;
            tViolationLines.clear();
            handleUpload(q, r, read);
            logWithViolations(q.method + " " + q.path + " " + std::to_string(r.status) + " events=" +
                              std::to_string(tEventsStored));
            tLoggedByHandler = true;
        });
        server.Post("/v1/batch", [this](const httplib::Request& q, httplib::Response& r,
                                        const httplib::ContentReader& read) {
            tMessagesStored = 0;
            tDuplicatesStored = 0;
            tViolationLines.clear();
            handleBatch(q, r, read);
            logWithViolations(q.method + " " + q.path + " " + std::to_string(r.status) + " messages=" +
                              std::to_string(tMessagesStored) + " duplicates=" + std::to_string(tDuplicatesStored));
            tLoggedByHandler = true;
        });
        server.Get("/stats", logged(&Handlers::handleStats));
        server.Get("/messages", logged(&Handlers::handleMessages));
        server.Get("/events", logged(&Handlers::handleEvents));
        server.Get(R"(/track/.*)", logged(&Handlers::handleTracking));
        server.Get("/tracking", logged(&Handlers::handleTrackingListing));
        server.Get("/violations", logged(&Handlers::handleViolations));
        // POST routes take a content reader: httplib tries those before the plain ones, so a
        // plain POST route would lose to the catch-all below.
        server.Post("/reset", [this](const httplib::Request& q, httplib::Response& r, const httplib::ContentReader& read) {
            HeldBody nothing(bodyBudget);
            readBody(read, r, 0, nothing);  // a body means nothing here
            handleReset(q, r);
            logRequest(q, r.status, 0);
            tLoggedByHandler = true;
        });
        // The live page's routes: after the gateway's own, before the catch-all below.
        registerPageRoutes(server, store);
        // Left to itself httplib reads a chunked body of any size into memory before finding
        // no route for it; bodies sent elsewhere are read here, within bounds, and dropped.
        auto notFound = [this](const httplib::Request&, httplib::Response& r, const httplib::ContentReader& read) {
            HeldBody nothing(bodyBudget);
            readBody(read, r, 0, nothing);
            r.status = 404;
        };
        server.Post(".*", notFound);
        server.Put(".*", notFound);
        server.Patch(".*", notFound);
        server.Delete(".*", notFound);
        // A request cut off by its deadline before a handler could answer is answered 408 on
        // a closing connection, whatever httplib made of it (a 400 for headers cut short).
        server.set_error_handler(httplib::Server::HandlerWithResponse(
            [this](const httplib::Request& request, httplib::Response& response) {
            if (!requestPastDeadline()) return httplib::Server::HandlerResponse::Unhandled;
            auto& headers = const_cast<httplib::Request&>(request).headers;  // the server's own, as above
            headers.erase("Connection");
            headers.emplace("Connection", "close");
            if (response.status != 408) answerJSON(response, 408, json{{"error", pastDeadlineWhy()}});
            return httplib::Server::HandlerResponse::Handled;
        }));
        server.requestDeadline = configuration.requestDeadline;
        server.pastDeadline = [this](bool answered) {
            store.count([](GatewayStatistics& s) { ++s.pastDeadline; });
            if (!answered) logLine("(request cut short) 408 events=0");
        };
        server.set_logger([this](const httplib::Request& request, const httplib::Response& response) {
            if (std::exchange(tLoggedByHandler, false)) return;
            logRequest(request, response.status, 0);
        });
        // httplib's default also sets SO_REUSEPORT, which lets a second gateway share the
        // port silently; a port in use must be an error instead.
        server.set_socket_options([](int socket) {
            int yes = 1;
            setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        });
        // Uploads come seconds apart; idle connections need not hold a worker for long.
        // An answer goes out as headers and body in two writes; with Nagle's algorithm the
        // second waits for the client's delayed ACK (some 40 ms) on every kept-alive request.
        server.set_tcp_nodelay(true);
        server.set_keep_alive_max_count(1000);
        server.set_keep_alive_timeout(kReadTimeoutSeconds);
        server.set_read_timeout(kReadTimeoutSeconds, 0);
        server.set_write_timeout(kWriteTimeoutSeconds, 0);
        server.set_payload_max_length(configuration.maxBodyBytes);
    }
};

GatewayEndpoints::GatewayEndpoints(const GatewayConfiguration& configuration, GatewayStore& store, ErrorNote& errors)
    : handlers_(std::make_unique<Handlers>(configuration, store, errors)) {}

GatewayEndpoints::~GatewayEndpoints() = default;

void GatewayEndpoints::install() { handlers_->installRoutes(); }

HTTPServer& GatewayEndpoints::server() { return handlers_->server; }

void GatewayEndpoints::logLine(const std::string& line) { handlers_->logLine(line); }

}  // namespace kt::gateway
