// What many transcripts share: openings, and a greylisting that defers everybody.
#pragma once

#include <string>
#include <string_view>

#include "proxy/dialogue/greylist_check.h"
#include "support/openings.h"

namespace trabex {

struct DelayAll : GreylistCheck {
  GreylistVerdict ShouldDefer(std::optional<std::string_view>, const IPAddress&, std::string_view,
                              std::string_view) override {
    return true;
  }
};

inline std::string Greeted() {
  return Greeting() + Ehlo({"8BITMIME", "CHUNKING", "SIZE 10000000"});
}

inline std::string InTransaction() {
  return Greeted() + MailAndRcpt();
}

inline std::string InContent() {
  return InTransaction() + R"(
    C: DATA
    -> DATA
    S: 354 go on
    wait 200
    -> Received: from client.test (Unknown [127.0.0.1]) by proxy.test
    ->       with ESMTP; Sun, 15 Nov 2026 16:54:24 -0000
    <- 354 go on
)";
}

}  // namespace trabex
