// The content of the greylisting database file: a header of magic number and payload length, and the records
// as tagged records. docs/greylisting-database.md describes it byte by byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>

#include "greylist/greylisting_database.h"
#include "greylist/tagged_records.h"

namespace trabex {

// The most bytes of a payload: its length has 32 bits. Some 30 million records of usual length fit.
inline constexpr std::uint64_t kMaxPayload = std::numeric_limits<std::uint32_t>::max();

// Hands the whole content to `out`, with those records of `database` that have not expired at `now`. What
// does not fit into a payload of `max_payload` bytes is left out: the pending records in the order in which
// they were added, and only when all of these are, the accepted ones likewise. Returns how many are left out.
// Raises whatever `out` raises.
std::size_t WriteDatabase(const GreyListingDatabase& database, DateTime now, const BytesOut& out,
                          std::uint64_t max_payload = kMaxPayload);

// The records of a content of `size` bytes, expired ones included; the changed flag is not set. Of the
// pending ones the last stay that `limits` permit; they are the limits of what is returned, which also counts
// what was dropped. Memory is taken for what was really read only, and kept for what stays. Raises 321 "The
// file is corrupted" for anything that WriteDatabase cannot have written, 457 for a key that comes twice, and
// whatever `in` raises.
GreyListingDatabase ReadDatabase(BytesIn in, std::uint64_t size, const PendingLimits& limits = {});

}  // namespace trabex
