// A greylisting record as text: a row for people, and a JSON object on a line for programs.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "base/date_time.h"
#include "greylist/cGreyListingData.h"

namespace trabex {

enum class GreyListState {
  kAccepted,
  kWaiting,  // not accepted so far
  kExpired,  // past its end, accepted or not
};
GreyListState StateOf(const cGreyListingData& record, DateTime now);
std::string_view StateText(GreyListState state);

// "2026-11-15T13:54:24Z" of a universal time, and back; nothing when `text` is none.
std::string FormatISODate(DateTime time);
std::optional<DateTime> ParseISODate(std::string_view text);

// Appends network, sender, recipient, state, attempts, delayed until and expires with tabs between them, and a
// line feed. Of what cannot be printed the bytes are shown as "\xHH"; the empty sender is "<>".
void AppendRow(const cGreyListingData& record, DateTime now, std::string& out);

// Appends the same as an object with a line feed: network, sender, recipient, state, attempts, delayed_until,
// expires.
void AppendListed(const cGreyListingData& record, DateTime now, std::string& out);

// Appends all of the record as such an object, with "accepted" in place of "state", which depends on the time.
void AppendExported(const cGreyListingData& record, std::string& out);
// The record of such a line, its key brought into the form of our own. Raises 321 with what is wrong.
cGreyListingData ParseExported(std::string_view line);

}  // namespace trabex
