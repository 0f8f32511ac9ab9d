// Who wants to know on what decisions rest: an explanation, never a session with a client.
#pragma once

#include <cstddef>
#include <string_view>

#include "base/ip_address.h"
#include "match/address_replacement.h"
#include "match/cReplaces.h"
#include "match/ip_range.h"
#include "match/mText.h"

namespace trabex {

// Told in the order in which a decision asks. What is handed over is that of the settings, and valid as long as
// they are. Where nobody wants to know there is none, so that it costs no more than a look at a pointer.
class DecisionTrace {
 public:
  virtual ~DecisionTrace() = default;
  virtual void Asked(const ExpressionList& list, std::string_view value, bool matches) = 0;
  virtual void Asked(const IPRangeList& list, const IPAddress& address, bool matches) = 0;
  // An address is replaced by this rule of the table.
  virtual void Replaced(const ReplacementTable& table, const ReplacementTable::Rule& rule) = 0;
  // A rule has changed the text of a reply.
  virtual void Changed(const cReplaces& rules, std::size_t rule) = 0;
};

// As those of mText and mCommon; `trace`, unless it is nullptr, is told.
inline bool MatchesList(std::string_view text, const ExpressionList& list, DecisionTrace* trace) {
  const bool matches = mText::MatchList(text, list);
  if (trace != nullptr) trace->Asked(list, text, matches);
  return matches;
}
inline bool MatchesList(const IPAddress& ip, const IPRangeList& list, DecisionTrace* trace) {
  const bool matches = mCommon::IPInRangeList(ip, list);
  if (trace != nullptr) trace->Asked(list, ip, matches);
  return matches;
}

}  // namespace trabex
