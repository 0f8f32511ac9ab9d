// What many transcripts share: openings, and a greylisting that defers everybody.
#pragma once

#include <string>
#include <string_view>

#include "proxy/dialogue/greylist_check.h"

namespace trabex {

struct DelayAll : GreylistCheck {
  bool ShouldDefer(std::string_view, const IPAddress&, std::string_view, std::string_view) override {
    return true;
  }
};

inline std::string Greeted() {
  return R"(
    S: 220 server ready
    <- 220 server ready
    C: EHLO client.test
    -> EHLO client.test
    S: 250-server
    S: 250-8BITMIME
    S: 250-CHUNKING
    S: 250 SIZE 10000000
    <- 250-server
    <- 250-8BITMIME
    <- 250-CHUNKING
    <- 250 SIZE 10000000
)";
}

// A sender and a recipient, after a greeting; the server takes both.
inline std::string MailAndRcpt(std::string_view sender = "a@b.test") {
  return "C: MAIL FROM:<" + std::string(sender) + ">\n-> MAIL FROM:<" + std::string(sender) + R"(>
    S: 250 ok
    <- 250 ok
    C: RCPT TO:<u@local.test>
    -> RCPT TO:<u@local.test>
    S: 250 ok
    <- 250 ok
)";
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
