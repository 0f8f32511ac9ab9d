#include "greylist/triple_key.h"

#include <algorithm>

#include "base/text.h"
#include "base/unicode_fold.h"
#include "greylist/tagged_records.h"

namespace trabex {

namespace {

// Where the first blank outside of double quotes is.
std::size_t EndOfAddress(std::string_view text) {
  bool quoted = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '"') quoted = !quoted;
    if (text[i] == ' ' && !quoted) return i;
  }
  return text.size();
}

std::string_view TakeUntil(std::string_view& text, std::size_t end) {
  const std::string_view taken = text.substr(0, end);
  text.remove_prefix(std::min(taken.size() + 1, text.size()));
  return taken;
}

}  // namespace

std::string NetworkOf(const IPAddress& ip, int ipv6_prefix) {
  if (!ip.IsIPv6()) return FormatIPv4Parts(ip, 3);
  return FormatIPAddress(ip.Prefix(ipv6_prefix)) + "/" + std::to_string(ipv6_prefix);
}

std::string TripleKey(std::string_view network, std::string_view sender, std::string_view recipient) {
  std::string key;
  key.reserve(network.size() + sender.size() + recipient.size() + 2);
  key.append(network);
  for (const std::string_view address : {sender, recipient}) {
    key.append(" ");
    if (IsAscii(address)) {
      key.append(address);
    } else {
      key.append(FoldText(address));
    }
  }
  std::transform(key.begin(), key.end(), key.begin(), [](char c) { return ToLower(c); });
  if (key.size() > kMaxTaggedBytes) key.resize(kMaxTaggedBytes);
  return key;
}

TripleParts PartsOf(std::string_view key) {
  TripleParts parts;
  parts.network = TakeUntil(key, key.find(' '));
  parts.sender = TakeUntil(key, EndOfAddress(key));
  parts.recipient = key;
  return parts;
}

}  // namespace trabex
