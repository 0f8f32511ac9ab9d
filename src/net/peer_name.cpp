#include "net/peer_name.h"

#include <algorithm>
#include <new>
#include <string_view>
#include <utility>

#include "base/text.h"
#include "platform/sockets.h"

namespace trabex {

namespace {

PeerName NameThatCounts(const NameAnswer& answer, bool counts) try {
  if (answer.error != 0) return {{}, answer.error, IsTemporary(answer.error)};
  if (!counts || !IsPlainHostName(answer.name)) {
    return {{}, socket_error::kNoData, !counts && answer.confirmation_failed};
  }
  return {answer.name};
} catch (const std::bad_alloc&) {
  return {{}, socket_error::kTryAgain, true};
}

}  // namespace

bool IsPlainHostName(std::string_view name) {
  return !name.empty() &&
         std::all_of(name.begin(), name.end(), [](char c) { return c == '.' || IsHostNameByte(c); });
}

LookupId FindPeerName(NameLookup& names, const IPAddress& address, bool confirmed,
                      std::function<void(const PeerName&)> done) {
  if (!confirmed) {
    return names.FindName(
        address, [done = std::move(done)](const NameAnswer& answer) { done(NameThatCounts(answer, true)); });
  }
  return names.FindConfirmedName(address, [done = std::move(done)](const NameAnswer& answer) {
    done(NameThatCounts(answer, answer.confirmed));
  });
}

}  // namespace trabex
