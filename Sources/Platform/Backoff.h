#pragma once
// The pause before another attempt at something that failed: growing with each failure,
// bounded, and jittered so that many clients do not come back at the same moment.

#include <chrono>
#include <random>

namespace kt {

/// `first` for the first retry, times `growth` for each one after, at most `longest`, then
/// spread by ±20 %. `retry` counts from 1.
std::chrono::milliseconds jitteredBackoff(std::chrono::milliseconds first, int growth, std::chrono::milliseconds longest,
                                          int retry, std::minstd_rand& random);

}  // namespace kt
