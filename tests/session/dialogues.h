// Openings that many transcripts share.
#pragma once

#include <string>

namespace trabex {

inline std::string Greeted() {
  return R"(
    S> 220 server ready
    C= 220 server ready
    C> EHLO client.test
    S= EHLO client.test
    S> 250-server
    S> 250-8BITMIME
    S> 250-CHUNKING
    S> 250 SIZE 10000000
    C= 250-server
    C= 250-8BITMIME
    C= 250-CHUNKING
    C= 250 SIZE 10000000
)";
}

inline std::string InTransaction() {
  return Greeted() + R"(
    C> MAIL FROM:<a@b.test>
    S= MAIL FROM:<a@b.test>
    S> 250 sender ok
    C= 250 sender ok
    C> RCPT TO:<u@local.test>
    S= RCPT TO:<u@local.test>
    S> 250 recipient ok
    C= 250 recipient ok
)";
}

inline std::string InContent() {
  return InTransaction() + R"(
    C> DATA
    S= DATA
    S> 354 go on
    S= Received: from client.test (Unknown [127.0.0.1]) by proxy.test
    S=       with ESMTP; Sun, 15 Nov 2026 16:54:24 -0000
    C= 354 go on
)";
}

}  // namespace trabex
