// The content of the greylisting database file: a header of magic number and payload length, and the records
// as a property bag. docs/greylisting-database.md describes it byte by byte.
#pragma once

#include <cstdint>

#include "greylist/greylisting_database.h"
#include "greylist/property_bag.h"

namespace trabex {

// Hands the whole content to `out`, with those records of `database` that have not expired at `now`. Raises
// 380 when they no longer fit into the 32-bit length (some 30 million records), and whatever `out` raises.
void WriteDatabase(const GreyListingDatabase& database, DateTime now, const BytesOut& out);

// The records of a content of `size` bytes, expired ones included; the changed flag is not set. Memory is
// taken for what was really read only. Raises 321 "The file is corrupted" for anything that WriteDatabase
// cannot have written, 457 for a key that comes twice, and whatever `in` raises.
GreyListingDatabase ReadDatabase(BytesIn in, std::uint64_t size);

}  // namespace trabex
