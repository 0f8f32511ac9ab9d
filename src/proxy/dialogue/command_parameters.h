// What follows the verb of a command, apart from addresses.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/numbers.h"

namespace trabex {

// The greatest octet count that is taken: some servers keep it in 32 bits and begin anew beyond.
inline constexpr std::uint64_t kMaxOctets = 2000000000;

// The first word of `rest`, which is what follows a verb, with its blank.
std::string_view FirstParameter(std::string_view rest);

// An octet count as BDAT and XEXCH50 take it: digits, at most kMaxOctets.
std::optional<std::uint64_t> OctetCount(std::string_view word);

// Whether a BDAT line is marked as the last one (RFC 3030): its `rest` holds " LAST", in any case, and the
// first of them is followed by nothing or a blank.
bool IsLastChunk(std::string_view rest);

// `rest`, of a line with an octet count as its first parameter, with `octets` in its place: without zeros in front,
// which some servers take for the sign of an octal number.
std::string WithOctetCount(std::string_view rest, std::uint64_t octets);

// The `rest` of a BDAT line with `octets` in place of its count. No word but LAST is left: with another one,
// servers disagree whether the chunk is the last one, and whether its octets are content at all.
std::string ChunkParameters(std::string_view rest, std::uint64_t octets, bool is_last);

// Whether `parameters`, which is what follows an address with the blank before it, is a list of words as RFC
// 5321 section 4.1.2 has them: each a keyword (letters, digits, "-", a letter or digit first), alone or with
// "=" and a value. The value may be empty and hold anything, which is more than the RFC lets it.
bool AreKeywordParameters(std::string_view parameters);

// Whether one of the words of `parameters` is `keyword` without a value, in any case.
bool HasKeyword(std::string_view parameters, std::string_view keyword);

// The greatest of the SIZE= values in `parameters` that consist of digits (RFC 1870): of several, servers
// take one or the other. What is beyond the type counts as the greatest whole number in it.
std::optional<FixedPoint> DeclaredSize(std::string_view parameters);

}  // namespace trabex
