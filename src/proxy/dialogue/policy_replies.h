// The replies that the proxy gives by itself. One row of data each; the row's number is the reply kind.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "match/cReplaces.h"

namespace trabex {

enum class ReplyKind : int {
  kQuitBadIP = 0,
  kBadSequence = 1,
  kBadSequenceBadIP = 2,
  kBadSequenceNoHelo = 3,
  kHeloBlackList = 4,
  kHeloInvalid = 5,
  kHeloNoDomain = 6,
  kHeloDNSError = 7,
  kMailTooManyTransactions = 8,
  kMailBlackList = 9,
  kMailSize = 10,
  kMailAddressSyntax = 11,
  kRcptTooManyRecipients = 12,
  kRcptRestricted = 13,
  kRcptRelaying = 14,
  kRcptPrivate = 15,
  kRcptBlackListLocal = 16,
  kRcptBlackListRemote = 17,
  kRcptAddressSyntax = 18,
  kRcptGreylisted = 19,
  kDataGreylisted = 20,
  kTooManyConnections = 21,
  kIPBlackList = 22,
  kHostsBlackList = 23,
  kNoPtr = 24,
  kShutdown = 25,
  kServerError = 26,
  kBadSyntax = 27,
  kLineTooLong = 28,
  kDataAmbiguousEnd = 29,
  kNotImplemented = 30,
  kTlsRequired = 31,
  kTlsBegins = 32,
  kTlsNotAvailable = 33,
  kTlsSyntax = 34,
  kTlsDataBehind = 35,
  kAuthTlsRequired = 36,
};
inline constexpr int kReplyKinds = 37;

// What the dialogue does with the session after the reply.
enum class AfterReply {
  kGoOn,
  kCount,      // counts a command out of order, and goes on
  kClose,      // ends the session
  kProxyOnly,  // goes on without a server
  kStartTls,   // TLS begins behind it
};

// In `text`, the name of a macro in angle brackets stands for its value (see SessionMacros).
struct PolicyReply {
  ReplyKind kind;
  // The response key; that of the family where there are several. "": nothing changes the reply.
  std::string_view key;
  std::string_view code;
  std::string_view enhanced;  // RFC 2034, 3463; "" for none
  std::string_view text;
  AfterReply after;
};

const PolicyReply& FindPolicyReply(ReplyKind kind);

// The reply line of `kind` without CR LF. An override that is not empty takes the place of the table's field.
// The enhanced code is left out when it is empty or `enhanced_status_codes` is off.
std::string BuildPolicyReply(ReplyKind kind, const MacroSource& values, bool enhanced_status_codes,
                             std::string_view code_override = {}, std::string_view enhanced_override = {},
                             std::string_view text_override = {});

}  // namespace trabex
