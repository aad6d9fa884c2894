#include "KTData/RequestQueue.h"

namespace kt {

RequestResult requestResultFor(long status) {
    if (status >= 200 && status < 300) return RequestResult::delivered;
    // Time-outs and throttling say nothing about the request itself: try it again later.
    if (status >= 400 && status < 500 && status != 408 && status != 429) return RequestResult::rejected;
    return RequestResult::failed;
}

}  // namespace kt
