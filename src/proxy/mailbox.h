// The address of a MAIL or RCPT command: taken from the line, and brought into the one form that is checked,
// remembered and forwarded, so that what the filter checked is the mailbox that the server delivers to.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace trabex {

// What ProcessAddressesWithoutBrackets says of an address that is not in angle brackets.
enum class BareAddresses : int { kTake = 0, kRefuse = 1, kForwardUnchecked = 2 };

struct PathArgument {
  enum class Verdict { kTaken, kSyntaxError, kForwardUnchecked };
  Verdict verdict = Verdict::kSyntaxError;
  // Without brackets, blanks around it dropped; not yet in its one form. What is forwarded unchecked has one
  // too, as well as it can be told.
  std::string address;
  std::string_view
      parameters;  // what follows the address, with the blank before it; points into the argument
};

// Reads what follows "FROM:" or "TO:". The address goes up to the first blank that is not inside "<"…">".
PathArgument ParsePath(std::string_view text, BareAddresses bare);

// The one form of an address: no source route ("@a,@b:" in front, RFC 5321 appendix C), no dot at the end of
// the domain, no quotes around a local part that needs none. Nothing when what remains is not empty and is no
// mailbox that servers read alike: a local part (one quoted string without a backslash, or bytes other than
// blanks, control characters and
// ()<>[]:;,\"@), with or without "@" and a domain (labels of such bytes between single dots, or a literal in
// brackets). Without a domain the local part holds no "@", "%" or "!", not even in quotes.
std::optional<std::string> NormalizeMailbox(std::string_view address);

// Whether a server that trusts the sender may route the address on to a domain inside its local part: that,
// without its quotes, holds "@", "%" or "!". `address` may be any: its local part is what stands between a
// source route and the last "@", so that of x@evil.test@local.test, which has no one form, is x@evil.test.
bool HasRouteInLocalPart(std::string_view address);

}  // namespace trabex
