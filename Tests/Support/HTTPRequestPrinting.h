#pragma once
// Readable failures for whole-request comparisons: GoogleTest finds PrintTo by argument lookup.

#include <ostream>

#include <gtest/gtest.h>

#include "KTAnalytics/Platform/HTTPRequest.h"

namespace kt {

inline void PrintTo(const HTTPRequest& request, std::ostream* out) {
    *out << request.method << ' ' << request.url << ' ' << ::testing::PrintToString(request.headers) << ' '
         << ::testing::PrintToString(request.body) << (request.followsRedirects ? " (follows redirects)" : "");
}

}  // namespace kt
