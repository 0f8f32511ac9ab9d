// The address of a MAIL or RCPT command: taken from the line, and brought into the canonical form that is
// checked, remembered and forwarded, so that what the filter checked is the mailbox that the server delivers
// to.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace trabex {

// What ProcessAddressesWithoutBrackets says of an address that is not in angle brackets.
enum class AddressesWithoutBrackets : int { kTake = 0, kRefuse = 1, kForwardUnchecked = 2 };

struct ParsedPath {
  enum class Verdict { kTaken, kSyntaxError, kForwardUnchecked };
  Verdict verdict = Verdict::kSyntaxError;
  // Without brackets, blanks around it dropped; not yet in its canonical form. What is forwarded unchecked
  // has an address by best effort.
  std::string address;
  // What follows the address, with the blank before it; points into the argument.
  std::string_view parameters;
};

// The most octets that an address and its domain have (RFC 5321, 4.5.3.1: 64, the "@" and 255).
inline constexpr std::size_t kMaxMailbox = 320;
inline constexpr std::size_t kMaxDomain = 255;

// Reads what follows "FROM:" or "TO:". The address goes up to the first blank that is not inside "<"…">".
// Empty text holds no address: that is a syntax error in every mode, and a lone bracket is one where it would
// be dropped. What is forwarded unchecked is remembered all the same, so a longer address than
// the limit is a syntax error there too.
ParsedPath ParsePath(std::string_view text, AddressesWithoutBrackets without_brackets);

// The canonical form of an address: no source route ("@a,@b:" in front, RFC 5321 appendix C), no dot at the
// end of the domain, no quotes around a local part that needs none. Nothing when what remains is longer than
// the limits above, or is neither empty nor a mailbox that servers read alike:
//
//   mailbox     local-part [ "@" domain ]
//   local-part  bytes, or one quoted string without a backslash
//   domain      labels of bytes between single dots, or a literal in brackets
//   bytes       other than blanks, control characters and ()<>[]:;,\"@
//
// Without a domain the local part holds no "@", "%" or "!", not even in quotes.
//
// With letters beyond ASCII there is more to it, since servers fold and map them: `address` holds nothing but
// address characters (see HoldsAddressCharacters); the folded mailbox is one with the same structure, that is
// with the same "@", dots, quotes and the like at the same places, and within the limits too; it is the same
// mailbox to servers that fold nothing but its case (see FoldsLikeItsCaseFolding); and the domain, which is
// no literal then, has none of the characters that some servers drop (RFC 5891 keeps joiners, UTS #46 of old
// does not) or take for a dot.
std::optional<std::string> NormalizeMailbox(std::string_view address);

// Whether a server that trusts the sender may route the address on to a domain inside its local part: that,
// without its quotes, holds "@", "%" or "!", as it is or folded. `address` may be any: its local part is what
// comes between a source route and the last "@", so that of x@evil.test@local.test, which has no canonical
// form, is x@evil.test.
bool HasRouteInLocalPart(std::string_view address);

}  // namespace trabex
