#include "proxy/dialogue/mailbox.h"

#include <algorithm>
#include <iterator>

#include "base/delimited_text.h"
#include "base/error.h"
#include "base/text.h"
#include "base/unicode_fold.h"

namespace trabex {

namespace {

// Bytes that every server reads as themselves without quotes.
bool IsPlain(char byte) {
  return byte != ' ' && !IsControl(byte) &&
         std::string_view("()<>[]:;,\\\"@").find(byte) == std::string_view::npos;
}

bool AllPlain(std::string_view text) {
  return std::all_of(text.begin(), text.end(), IsPlain);
}

// Words of plain bytes between single dots: the dot-string of RFC 5321.
bool IsDotted(std::string_view text) {
  return !text.empty() && AllPlain(text) && text.front() != '.' && text.back() != '.' &&
         text.find("..") == std::string_view::npos;
}

bool IsDomain(std::string_view text) {
  if (text.size() > 2 && text.front() == '[' && text.back() == ']') {
    const std::string_view literal = text.substr(1, text.size() - 2);
    // An IPv6 literal has colons.
    return std::all_of(literal.begin(), literal.end(),
                       [](char byte) { return byte == ':' || IsPlain(byte); });
  }
  return IsDotted(text);
}

bool IsQuoted(std::string_view text) {
  return text.size() >= 2 && text.front() == '"' && text.back() == '"';
}

std::string_view WithoutQuotes(std::string_view text) {
  return IsQuoted(text) ? text.substr(1, text.size() - 2) : text;
}

// Where the quoted string at the front ends; 0 when there is none, or it is not closed.
std::size_t BehindQuotes(std::string_view address) {
  if (!address.starts_with('"')) return 0;
  return address.find('"', 1) + 1;
}

// The length of the local part: up to the first "@" after the quoted string at the front.
std::size_t LocalPartLength(std::string_view address) {
  return std::min(address.find('@', BehindQuotes(address)), address.size());
}

bool HoldsRoute(std::string_view local_part) {
  return local_part.find_first_of("@%!") != std::string_view::npos;
}

// Without its route: "@a,@b:x@c" is x@c.
std::string_view WithoutSourceRoute(std::string_view address) {
  if (address.empty() || address.front() != '@') return address;
  const std::size_t colon = address.find(':');
  if (colon == std::string_view::npos) return address;
  const std::string_view route = address.substr(0, colon);
  for (std::string_view hop : Split(route, ',')) {
    hop = Trim(hop);
    if (hop.empty() || hop.front() != '@' || !IsDomain(hop.substr(1))) return address;
  }
  return Trim(address.substr(colon + 1));
}

// NormalizeMailbox for the bytes as they are.
std::optional<std::string> CanonicalForm(std::string_view address) {
  address = WithoutSourceRoute(address);
  if (address.empty()) return std::string();
  const std::size_t local_length = LocalPartLength(address);
  std::string_view local = address.substr(0, local_length);
  const bool has_domain = local_length < address.size();
  std::string_view domain = has_domain ? address.substr(local_length + 1) : std::string_view();

  if (IsQuoted(local)) {
    const std::string_view inside = WithoutQuotes(local);
    if (inside.find_first_of("\"\\") != std::string_view::npos) return std::nullopt;
    if (std::any_of(inside.begin(), inside.end(), IsControl)) return std::nullopt;
    if (IsDotted(inside)) local = inside;
  } else if (local.empty() || !AllPlain(local)) {
    return std::nullopt;
  }
  if (!has_domain) {
    return HoldsRoute(WithoutQuotes(local)) ? std::nullopt : std::optional<std::string>(local);
  }
  if (domain.size() > 1 && domain.back() == '.') domain.remove_suffix(1);
  if (!IsDomain(domain)) return std::nullopt;
  return std::string(local).append("@").append(domain);
}

// The domain of an address in its canonical form.
std::string_view DomainOf(std::string_view form) {
  return form.substr(std::min(LocalPartLength(form) + 1, form.size()));
}

bool IsWithinLimits(std::string_view form) {
  return form.size() <= kMaxMailbox && DomainOf(form).size() <= kMaxDomain;
}

// The bytes that make out the structure of an address, in their order.
std::string Structure(std::string_view address) {
  std::string structure;
  std::copy_if(address.begin(), address.end(), std::back_inserter(structure),
               [](char byte) { return !IsPlain(byte) || byte == '.' || byte == '%' || byte == '!'; });
  return structure;
}

// Whether a form with letters beyond ASCII is the same mailbox to servers that fold and to those that do not.
bool IsReadAlikeFolded(std::string_view form) {
  constexpr std::string_view kIdeographicFullStop = "\xE3\x80\x82";  // a dot to IDNA (UTS #46)
  const std::string folded = FoldText(form);
  // Nothing at all would be the null sender.
  if (folded.empty()) return false;
  if (Structure(folded) != Structure(form) || CanonicalForm(folded) != folded || !IsWithinLimits(folded))
    return false;
  if (!FoldsLikeItsCaseFolding(form)) return false;
  const std::string_view domain = DomainOf(form);
  if (domain.starts_with('[')) return IsAscii(domain);
  return !HoldsIgnorable(domain) && DomainOf(folded).find(kIdeographicFullStop) == std::string_view::npos;
}

bool HoldsRouteAsItIs(std::string_view address) {
  address = WithoutSourceRoute(address);
  const std::size_t last_at = address.rfind('@');
  const bool has_domain = last_at != std::string_view::npos && last_at >= BehindQuotes(address);
  return HoldsRoute(WithoutQuotes(has_domain ? address.substr(0, last_at) : address));
}

}  // namespace

ParsedPath ParsePath(std::string_view text, AddressesWithoutBrackets without_brackets) {
  text = Trim(text);
  ParsedPath result;
  if (text.empty()) return result;
  std::string_view part;
  try {
    const std::size_t blank = mCommon::InstrOutsise(1, text, " ", "<", ">");
    const std::size_t length = blank == 0 ? text.size() : blank - 1;
    part = text.substr(0, length);
    result.parameters = text.substr(length);
    result.address = Trim(mCommon::Undelimit(part, "<", ">"));
    result.verdict = ParsedPath::Verdict::kTaken;
    return result;
  } catch (const Error&) {
    // Not in angle brackets, or they are unbalanced: the setting decides.
  }
  if (without_brackets == AddressesWithoutBrackets::kRefuse) return result;
  if (part.empty()) {
    part = FirstWord(text);
    result.parameters = text.substr(part.size());
  }
  // One bracket without the other is what servers drop too.
  if (part.starts_with('<')) {
    part.remove_prefix(1);
  } else if (part.ends_with('>')) {
    part.remove_suffix(1);
  }
  result.address = Trim(part);
  if (without_brackets == AddressesWithoutBrackets::kTake) {
    if (!part.empty()) result.verdict = ParsedPath::Verdict::kTaken;
  } else if (result.address.size() <= kMaxMailbox) {
    result.verdict = ParsedPath::Verdict::kForwardUnchecked;
  }
  return result;
}

std::optional<std::string> NormalizeMailbox(std::string_view address) {
  if (!HoldsAddressCharacters(address)) return std::nullopt;
  auto form = CanonicalForm(address);
  if (!form || !IsWithinLimits(*form)) return std::nullopt;
  if (!IsAscii(*form) && !IsReadAlikeFolded(*form)) return std::nullopt;
  return form;
}

bool HasRouteInLocalPart(std::string_view address) {
  return HoldsRouteAsItIs(address) || (!IsAscii(address) && HoldsRouteAsItIs(FoldText(address)));
}

}  // namespace trabex
