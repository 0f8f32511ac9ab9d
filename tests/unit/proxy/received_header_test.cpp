#include "proxy/dialogue/received_header.h"

#include <gtest/gtest.h>

#include "unit/proxy/dialogue.h"

namespace trabex {
namespace {

TEST(ReceivedHeader, SaysWhoSentTheMessageAndHow) {
  const struct {
    bool ehlo;
    const char* helo;
    const char* host;
    const char* header;
  } rows[] = {
      {true, "client.test", "mail.client.test",
       "Received: from client.test (mail.client.test [192.0.2.7]) by proxy.test\r\n"
       "      with ESMTP; Sun, 15 Nov 2026 16:54:24 +0300"},
      {false, "client.test", "mail.client.test",
       "Received: from client.test (mail.client.test [192.0.2.7]) by proxy.test\r\n"
       "      with SMTP; Sun, 15 Nov 2026 16:54:24 +0300"},
      {true, "[192.0.2.7]", "",
       "Received: from [192.0.2.7] (Unknown [192.0.2.7]) by proxy.test\r\n"
       "      with ESMTP; Sun, 15 Nov 2026 16:54:24 +0300"},
      {false, "", "",
       "Received: from  (Unknown [192.0.2.7]) by proxy.test\r\n"
       "      with SMTP; Sun, 15 Nov 2026 16:54:24 +0300"},
  };
  for (const auto& row : rows) {
    TestDialogue d;
    d.clock.SetBias(-180);
    d.facts.host = row.host;
    d.state.requested.HeloDomain = row.helo;
    d.state.requested.EhloUsed = row.ehlo;
    EXPECT_EQ(GenerateReceivedHeader(d.configuration, d.clock, d.facts, d.state.requested), row.header);
  }
}

}  // namespace
}  // namespace trabex
