#pragma once

#include <cstdint>

namespace vantor {

// A service's share of a purge: what is still missing divided among the
// services still viable at this level, in unsigned integer division (the
// remainder is dropped); a divisor of 0 or less counts as 1.
std::uint64_t purgeDonation(std::uint64_t needed, std::uint64_t purged, std::int32_t viable);

// The percentage bucket, a multiple of 10, of `purged` against a non-zero
// `requested`: 100 for exactly the amount, 60 for 7 of 10 (the quotient is
// taken in single precision, which puts 0.7 a little below 0.7). Not capped.
int purgePercentageBucket(std::int64_t requested, std::int64_t purged);

}  // namespace vantor
