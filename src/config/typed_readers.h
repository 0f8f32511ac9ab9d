// The readers that turn raw values into numbers, sizes and texts.
//
// An absent key gives the default, unchecked. A bad value is reported with ReportConfigError, which raises
// unless errors are ignored; then the default is given. What they return owns its memory.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/endpoint.h"
#include "base/ip_address.h"
#include "base/numbers.h"
#include "config/ini_errors.h"
#include "config/section_store.h"
#include "match/address_replacement.h"

namespace trabex::mCommon {

// How GetString matches its pattern.
enum class PatternKind {
  kPlainLike,  // case-sensitive, no negation prefix
  kLikeText,
};

// A value that is not empty has to match `pattern`, unless that is empty: "Inadmissible string" (380).
std::string GetString(const IniErrors& errors, const SectionTable& section, std::string_view key,
                      std::string_view default_value, std::string_view pattern = {},
                      PatternKind pattern_kind = PatternKind::kPlainLike);

// `min` and `max` belong to the range; all errors are 380, and the empty value is one.
std::int32_t GetInteger(const IniErrors& errors, const SectionTable& section, std::string_view key,
                        std::int32_t default_value, std::int64_t min, std::int64_t max);

// The part of GetInteger after the look-up, for a value that was found otherwise.
std::int32_t ConvertInteger(const IniErrors& errors, std::string_view section, std::string_view key,
                            std::string_view value, std::int32_t default_value, std::int64_t min,
                            std::int64_t max);

// A number that may have a fraction and one of the suffixes K, M, G (1024, its square and cube; any case).
// Messages show the value without its suffix, and `min` and `max` (both belong to the range) as whole
// numbers.
FixedPoint GetSize(const IniErrors& errors, const SectionTable& section, std::string_view key,
                   FixedPoint default_value, FixedPoint min, FixedPoint max);

// One of `choices`, as it is; "Inadmissible string" (380) for anything else, the empty value too.
std::string GetChoice(const IniErrors& errors, const SectionTable& section, std::string_view key,
                      std::string_view default_value, std::span<const std::string_view> choices);

// Those of `choices` that the lines of `key` name, without regard to case, with commas between them; as they
// stand in `choices`, in the order of the file. Reported are any other name ("Inadmissible string", 380) and
// one that is given twice (457). An absent key gives none.
std::vector<std::string> GetChoices(const IniErrors& errors, const SectionTable& section,
                                    std::string_view key, std::span<const std::string_view> choices);

// An address and a port (ParseEndpoint); `text` becomes the value. An absent or empty one is none, port 0,
// and so is a bad one: "Inadmissible string" (380).
Endpoint GetEndpoint(const IniErrors& errors, const SectionTable& section, std::string_view key,
                     std::string& text);

// The addresses of one value with commas between them.
struct IPAddresses {
  std::string text;                  // the entries that count as they were read, with ", " between them
  std::vector<IPAddress> addresses;  // what they are, in the same order
};

// Entries that are empty, or an address that stood before, do not count; no entry at all means the default.
// An entry with ":" is an IPv6 address (ParseIPAddress). Any other has the form of an IPv4 address; one that
// is none nevertheless (a part is too large, or no number) gives the address none. Anything else is
// "Inadmissible string" (380) with the whole value, and the default.
IPAddresses GetIPAddresses(const IniErrors& errors, const SectionTable& section, std::string_view key,
                           std::string_view default_value);

// All keys of an address-replacement section, in the order of the file. A key that is no pattern list
// (a pattern in it is malformed, or a delimited part has no end) is reported with 93 and left out.
ReplacementTable GetReplacementTable(const IniErrors& errors, const SectionTable& section);

}  // namespace trabex::mCommon
